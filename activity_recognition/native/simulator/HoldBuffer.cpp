// SPDX-License-Identifier: Apache-2.0
#include "HoldBuffer.h"

#include <algorithm>
#include <set>

namespace ar_simulator {

void HoldBuffer::drop(const PairKey& key) {
    mHeld.erase(std::remove_if(mHeld.begin(), mHeld.end(),
                               [&](const Held& held) { return held.key == key; }),
                mHeld.end());
}

void HoldBuffer::flush(int64_t untilNs) {
    mFlushedNs = untilNs;
    for (Held& held : mHeld) held.flushed = true;
}

int64_t HoldBuffer::deadlineOf(const Held& held, const PairTable& pairs) const {
    if (held.flushed) return INT64_MIN;
    // Pairs that were disabled have nothing here.
    const int64_t latencyNs = std::max<int64_t>(pairs.at(held.key).latencyNs, 0);
    const int64_t sinceNs = held.event.timestamp;
    return latencyNs > INT64_MAX - sinceNs ? INT64_MAX : sinceNs + latencyNs;
}

int64_t HoldBuffer::deadlineNs(const PairTable& pairs) const {
    if (isFull()) return INT64_MIN;
    int64_t deadlineNs = INT64_MAX;
    for (const Held& held : mHeld) deadlineNs = std::min(deadlineNs, deadlineOf(held, pairs));
    return deadlineNs;
}

std::vector<ar_context_event> HoldBuffer::take(const PairTable& pairs, int64_t nowNs) {
    const bool all = isFull();
    std::set<PairKey> due;
    for (const Held& held : mHeld) {
        if (all || deadlineOf(held, pairs) <= nowNs) due.insert(held.key);
    }
    std::vector<ar_context_event> events;
    std::vector<Held> kept;
    for (const Held& held : mHeld) {
        if (due.count(held.key) != 0) {
            events.push_back(held.event);
        } else {
            kept.push_back(held);
        }
    }
    mHeld.swap(kept);
    return events;
}

}  // namespace ar_simulator
