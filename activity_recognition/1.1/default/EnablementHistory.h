// SPDX-License-Identifier: Apache-2.0
// What clients asked the activity side to enable, disable and flush, what the module was told of it
// and what it answered: the last calls, and each pair's last word. For the dump; nothing is decided
// by it.
#pragma once

#include <stdint.h>

#include <atomic>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "InFlight.h"
#include "RequestTables.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// One call of a client. All texts live as long as the library.
struct Attempt {
    int64_t atNs;  // CLOCK_MONOTONIC, its start
    uint64_t pid;
    const char* call;  // the client's method
    uint32_t activity;
    uint32_t event;
    int64_t askedNs;                  // the latency that the client named
    const char* slot = nullptr;       // what the module was told; NULL: nothing
    int64_t toldNs = 0;               // with which latency
    int32_t answer = 0;               // the module's; 0 also when it was told nothing
    int32_t result = 1 /*kFailure*/;  // the client's

    // Calls a slot of the module, in flight meanwhile.
    template <typename... Parameters, typename... Arguments>
    void tell(const CallSite& site, int64_t latencyNs, const activity_interface* impl,
              int (*activity_interface::*called)(Parameters...), Arguments... arguments) {
        slot = site.call;
        toldNs = latencyNs;
        answer = CallModule(site, pid, impl, called, arguments...);
    }
};

// The last kSize calls, in the order in which they ended. Kept without a lock: of two that meet in
// one place, since one was overtaken by kSize others, one is lost.
class AttemptHistory {
  public:
    static constexpr uint64_t kSize = 32;

    void add(const Attempt& attempt);
    // The oldest first, without those that are being written.
    std::vector<Attempt> copy() const;

  private:
    static constexpr size_t kWords = 8;
    static_assert(sizeof(Attempt) == kWords * sizeof(uint64_t), "Attempt changed size");
    static_assert(std::is_trivially_copyable<Attempt>::value, "Attempt goes word by word");

    struct Place {
        // Twice the number of the call that stands here, counted from 1; odd while it is written.
        std::atomic<uint64_t> version{0};
        std::atomic<uint64_t> words[kWords];
    };
    std::atomic<uint64_t> mLast{0};
    Place mPlaces[kSize];
};

// Stands in the history when it ends.
class NotedAttempt : public Attempt {
  public:
    NotedAttempt(AttemptHistory& history, const Attempt& begun)
        : Attempt(begun), mHistory(history) {}
    ~NotedAttempt() { mHistory.add(*this); }
    NotedAttempt(const NotedAttempt&) = delete;
    NotedAttempt& operator=(const NotedAttempt&) = delete;

    // For return statements.
    int32_t end(int32_t ended) { return result = ended; }

  private:
    AttemptHistory& mHistory;
};

// Of a pair: what the module was told last, as its answers came in, and whether it has the pair.
struct Told {
    const char* slot;
    int64_t latencyNs;
    int32_t answer;
    int64_t atNs;
    bool enabled;  // it has agreed to an enable since it last agreed to a disable
};

// Pairs that the module has, and those that it has given up though somebody asks for them. Locks
// nothing.
class ToldTable {
  public:
    // disables: the slot was a disable. asked: whether anybody has a request for the pair.
    void note(const Attempt& attempt, bool disables, bool asked);
    std::vector<std::pair<PairKey, Told>> copy() const { return {mTold.begin(), mTold.end()}; }

  private:
    std::unordered_map<PairKey, Told, KeyHash> mTold;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
