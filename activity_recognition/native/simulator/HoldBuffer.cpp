// SPDX-License-Identifier: Apache-2.0
#include "HoldBuffer.h"

#include <algorithm>
#include <set>

namespace ar_simulator {

void HoldBuffer::drop(const PairKey& key) {
    mHeld.erase(std::remove_if(mHeld.begin(), mHeld.end(),
                               [&](const ar_context_event& event) { return keyOf(event) == key; }),
                mHeld.end());
}

int64_t HoldBuffer::deadlineOf(const ar_context_event& event, const PairTable& pairs) const {
    if (event.timestamp <= mFlushedNs) return INT64_MIN;
    // Pairs that were disabled have nothing here.
    const int64_t latencyNs = std::max<int64_t>(pairs.at(keyOf(event)).latencyNs, 0);
    const int64_t sinceNs = event.timestamp;
    return latencyNs > INT64_MAX - sinceNs ? INT64_MAX : sinceNs + latencyNs;
}

int64_t HoldBuffer::deadlineNs(const PairTable& pairs) const {
    if (isFull()) return INT64_MIN;
    int64_t deadlineNs = INT64_MAX;
    for (const ar_context_event& event : mHeld)
        deadlineNs = std::min(deadlineNs, deadlineOf(event, pairs));
    return deadlineNs;
}

std::vector<ar_context_event> HoldBuffer::take(const PairTable& pairs, int64_t nowNs) {
    const bool all = isFull();
    std::set<PairKey> due;
    for (const ar_context_event& event : mHeld) {
        if (all || deadlineOf(event, pairs) <= nowNs) due.insert(keyOf(event));
    }
    std::vector<ar_context_event> events;
    std::vector<ar_context_event> kept;
    for (const ar_context_event& event : mHeld) {
        if (due.count(keyOf(event)) != 0) {
            events.push_back(event);
        } else {
            kept.push_back(event);
        }
    }
    mHeld.swap(kept);
    return events;
}

}  // namespace ar_simulator
