// The event type that was routed last to each client for each activity.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <vector>

#include <utils/Mutex.h>

#include "IndexedTable.h"
#include "RequestTables.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// One record for a client and an activity, in the order of their first events. Disabling removes,
// delivery notes; a delivery that goes to the same clients as the one before writes nothing, and
// takes the lock only where it writes.
class LastEventTable {
  public:
    // Where the events of a pair are noted, as walking its requests has found it. Delivery's own,
    // like the functions that take one: one thread at a time.
    struct Notes {
        PairKey key;
        std::vector<EventResponseData*> records;
        uint64_t removals = 0;  // of the activity, before the walk
    };

    // Makes event the client's last one for the activity; a record that stands keeps its timestamp.
    void note(uint64_t pid, uint32_t activity, uint32_t event, int64_t timestamp) EXCLUDES(mLock) {
        ::android::Mutex::Autolock lock(mLock);
        mNotedLast[slotOf(activity)] = nullptr;
        EventResponseData* const record = mRecords.first({pid, activity});
        if (record != nullptr) {
            record->event = event;
        } else {
            mRecords.push_back({pid, activity, event, timestamp, {}, 0});
        }
    }

    // Removes the client's first record of this activity and event, if any.
    void erase(uint64_t pid, uint32_t activity, uint32_t event) EXCLUDES(mLock) {
        ::android::Mutex::Autolock lock(mLock);
        const auto fits = [event](const EventResponseData& record) {
            return record.event == event;
        };
        if (mRecords.erase({pid, activity}, fits)) ++mRemovals[slotOf(activity)];
    }

    // A walk of the pair's requests starts, notes an event for each and adds the record of each.
    Notes startWalk(const PairKey& key) const { return {key, {}, mRemovals[slotOf(key.first)]}; }
    void addTo(Notes& notes, uint64_t pid) EXCLUDES(mLock) {
        ::android::Mutex::Autolock lock(mLock);
        notes.records.push_back(mRecords.first({pid, notes.key.first}));
    }

    // Does what another walk of the same requests would do, unless a record was removed since: then
    // it answers false, and they must be walked.
    bool noteAgain(const Notes& notes) EXCLUDES(mLock) {
        const size_t slot = slotOf(notes.key.first);
        if (mRemovals[slot] != notes.removals) return false;
        if (mNotedLast[slot] == &notes) return true;
        ::android::Mutex::Autolock lock(mLock);
        if (mRemovals[slot] != notes.removals) return false;
        for (EventResponseData* record : notes.records) record->event = notes.key.second;
        mNotedLast[slot] = &notes;
        return true;
    }

  private:
    friend struct ActivityInterfaceTestPeer;

    // Activities that share a slot only cost each other a needless walk.
    static constexpr size_t kSlots = 64;
    static size_t slotOf(uint32_t activity) { return activity % kSlots; }

    ::android::Mutex mLock;  // leaf lock
    IndexedTable<EventResponseData, ClientActivityOf> mRecords GUARDED_BY(mLock);
    std::atomic<uint64_t> mRemovals[kSlots] = {};
    const Notes* mNotedLast[kSlots] = {};  // delivery's own; compared only
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
