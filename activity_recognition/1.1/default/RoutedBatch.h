// SPDX-License-Identifier: Apache-2.0
// A batch of plain events between routing and report: which event goes to which processes, and each
// process's share as client records.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <unordered_map>
#include <vector>

#include "Conversions.h"
#include "EnableRequestTable.h"
#include "LastEventTable.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Every process that ever had a routed event, in order of appearance. Never pruned.
class ReportList {
  public:
    size_t size() const { return mPids.size(); }
    bool empty() const { return mPids.empty(); }
    uint64_t operator[](size_t position) const { return mPids[position]; }
    std::vector<uint64_t>::const_iterator begin() const { return mPids.begin(); }
    std::vector<uint64_t>::const_iterator end() const { return mPids.end(); }

    // The process's position, which is the last one if it is new.
    uint32_t add(uint64_t pid) {
        const auto added = mPositions.emplace(pid, static_cast<uint32_t>(mPids.size()));
        if (added.second) mPids.push_back(pid);
        return added.first->second;
    }
    void clear() {
        mPids.clear();
        mPositions.clear();
    }

  private:
    std::vector<uint64_t> mPids;
    std::unordered_map<uint64_t, uint32_t, KeyHash> mPositions;
};

// Whom the events of a pair go to, as walking its requests has found it. The pair has it, under the
// requests' lock, until one of its requests or of the last events that it notes goes or comes. A
// batch keeps the plans that its events began with, and what is in them is delivery's alone.
struct DeliveryPlan {
    std::vector<uint32_t> processes;  // positions in the report list, ascending, one a request
    LastEventTable::Notes notes;

    uint64_t batch = 0;   // the last batch with an event of this plan,
    uint32_t run = 0;     // which of its plans this is,
    uint32_t length = 0;  // and how many events it has there
};

// Where a batch's events of a pair go until something changes that they depend on.
struct Route {
    uint32_t activity = 0;
    uint32_t event = 0;
    uint64_t changes = ~0ull;      // when it was found; the default is never reached
    DeliveryPlan* plan = nullptr;  // the batch holds it; NULL when nobody wants the pair
    int64_t barrier = 0;
};

// The routes that were found last.
class RouteMemory {
  public:
    // That of the pair, if it is remembered and nothing has changed since it was found, or NULL.
    const Route* find(uint32_t activity, uint32_t event, uint64_t changes) const {
        const Route& route = mRoutes[placeOf(activity, event)];
        const bool holds =
                route.changes == changes && route.activity == activity && route.event == event;
        return holds ? &route : nullptr;
    }
    // Makes room for the pair's, which is not found until its changes are set.
    Route* replace(uint32_t activity, uint32_t event) {
        Route& route = mRoutes[placeOf(activity, event)];
        route = {activity, event};
        return &route;
    }

  private:
    static constexpr size_t kRoutes = 64;
    static size_t placeOf(uint32_t activity, uint32_t event) {
        return (activity * 2 + event) % kRoutes;
    }
    Route mRoutes[kRoutes];
};

// Processes whose requests are of the same pairs share one list. Buffers stay for the next batch,
// so that one allocates only where it exceeds those before it; of lists, those beyond a few stay
// only while batches need them. Locks nothing.
class RoutedBatch {
  public:
    // One process's share in each version's form, in the order of the events.
    struct Lists {
        std::vector<ActivityEventV1_1> eventsV1_1;
        std::vector<ActivityEvent> eventsV1_0;
    };

    // Takes in a plan that events of the batch are about to follow.
    void start(const std::shared_ptr<DeliveryPlan>& plan);
    // An event that goes to the processes of a plan that was taken in; at most
    // ACTIVITY_RECOGNITION_MAX_EVENTS of them. It is copied: the module may write its records anew
    // while clients are called.
    void add(const activity_event& event, DeliveryPlan* plan) {
        const uint32_t at = mLength++;
        ConvertWhole(event, &mEvents[at]);
        mRunOf[at] = plan->run;
        plan->notes.last = at;
        ++plan->length;
    }

    // A wanted event that a barrier holds back.
    void holdBack() { ++mHeldBack; }
    size_t heldBack() const { return mHeldBack; }
    // How often what was added goes to a request.
    size_t routed() const;

    // Groups what was added by process. Answers the positions of the processes that have a share
    // or, with everybody, all of the report list; ascending. all: how many the report list has.
    const std::vector<uint32_t>& group(size_t all, bool everybody);
    bool hasShare(uint32_t position) const { return mShareOf[position] != kNothing; }
    // Holds until it is asked for a position that has other events. Version 1.0 lists are made with
    // everybody only.
    const Lists& listsOf(uint32_t position);

    void clear();

  private:
    // What a process gets: the events of a run on top of what another share has.
    struct Share {
        uint32_t under;
        uint32_t run;
        uint32_t users;
        uint32_t grownFor;  // the run on top of which this one stands in grown
        uint32_t grown;
        uint32_t list;  // 0: none yet
    };
    enum : uint32_t { kNothing = 0, kNoShare = ~0u };  // kNothing: the share of who gets nothing

    void fill(const Share& share, Lists* lists);
    template <typename Record>
    void fill(size_t length, std::vector<Record>* list) const;

    // The events, and which of the plans each one goes by.
    ActivityEventV1_1 mEvents[ACTIVITY_RECOGNITION_MAX_EVENTS];
    uint32_t mRunOf[ACTIVITY_RECOGNITION_MAX_EVENTS];
    uint32_t mLength = 0;
    size_t mHeldBack = 0;
    std::vector<std::shared_ptr<DeliveryPlan>> mRuns;  // the plans in order of appearance
    std::vector<Share> mShares;
    std::vector<uint32_t> mShareOf;  // by position; all kNothing between batches
    std::vector<uint32_t> mPositions;
    std::vector<uint32_t> mCopies;  // by run: how often the share has it; all 0 between fills
    std::vector<Lists> mLists;      // the first is that of shares which one process has
    uint32_t mUsedLists = 1;
    uint32_t mAlone = kNoShare;  // the share that the first list holds
    uint64_t mNumber = 1;
    bool mEverybody = false;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
