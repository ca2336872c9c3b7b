// SPDX-License-Identifier: Apache-2.0
// What is counted while the service works, for its dump. None of it decides anything.
#pragma once

#include <stdint.h>

#include <atomic>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Since the library was loaded. Any thread may add and read, without a lock.
class Counter {
  public:
    void add(uint64_t amount = 1) { mValue.fetch_add(amount, std::memory_order_relaxed); }
    uint64_t value() const { return mValue.load(std::memory_order_relaxed); }

  private:
    std::atomic<uint64_t> mValue{0};
};

// Of one side.
struct SideCounters {
    Counter batches;  // valid ones, of plain events on the activity side
    Counter records;  // in these
    Counter refusedBatches;
    Counter calls;  // to clients
    Counter failedCalls;
    Counter deaths;  // notices
};

struct ActivityCounters : SideCounters {
    Counter routed;        // plain records, one for each request that one met
    Counter belowBarrier;  // plain records that a barrier held back
    Counter extendedBatches;
    Counter extendedRecords;
    Counter nativeRefusals;  // of enables, disables and flushes
};

// What a client's callback has come to: kept with the client, under the lock of its table.
struct ClientCalls {
    int64_t registeredNs;  // CLOCK_MONOTONIC
    uint64_t calls;
    uint64_t failed;
    uint64_t empty;  // calls that carried nothing
    uint64_t records;
    int64_t lastNs;  // how long the last call took, and the worst
    int64_t worstNs;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
