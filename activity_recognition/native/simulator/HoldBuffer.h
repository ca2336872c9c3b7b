// SPDX-License-Identifier: Apache-2.0
// Enabled pairs and the records that are held back for them.
#pragma once

#include <stdint.h>

#include <map>
#include <utility>
#include <vector>

#include <zaltho/activity_recognition_native.h>

namespace ar_simulator {

// Activity or environment, and event type.
using PairKey = std::pair<uint32_t, uint32_t>;

struct Pair {
    int64_t latencyNs;
    bool extended;  // enabled through the extended slot
};

using PairTable = std::map<PairKey, Pair>;

// Holds the records of one kind, at most one full batch of them. Not thread-safe. Times are those
// of the module's clock.
class HoldBuffer {
  public:
    bool isFull() const { return mHeld.size() >= ACTIVITY_RECOGNITION_MAX_EVENTS; }

    // The caller sees to it that the record's pair is enabled and the buffer not full. key: the
    // pair's, whatever the record itself says.
    void add(const PairKey& key, const ar_context_event& event) {
        mHeld.push_back({key, event, event.timestamp <= mFlushedNs});
    }
    void drop(const PairKey& key);

    // What is held is due, and so is what will be added of no later than this.
    void flush(int64_t untilNs);

    // When take() has something to give: INT64_MIN at once, INT64_MAX never.
    int64_t deadlineNs(const PairTable& pairs) const;
    // The records that are due, in the order in which they came. A pair that is due gives all it
    // has, a full buffer everything.
    std::vector<ar_context_event> take(const PairTable& pairs, int64_t nowNs);

  private:
    struct Held {
        PairKey key;
        ar_context_event event;
        bool flushed;
    };
    int64_t deadlineOf(const Held& held, const PairTable& pairs) const;

    std::vector<Held> mHeld;
    int64_t mFlushedNs = INT64_MIN;
};

}  // namespace ar_simulator
