// SPDX-License-Identifier: Apache-2.0
#include "EnablementHistory.h"

#include <string.h>

#include <algorithm>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

void AttemptHistory::add(const Attempt& attempt) {
    uint64_t words[kWords];
    memcpy(words, &attempt, sizeof(words));
    const uint64_t version = 2 * (mLast.fetch_add(1, std::memory_order_relaxed) + 1);
    Place& place = mPlaces[version / 2 % kSize];
    uint64_t stands = place.version.load(std::memory_order_relaxed);
    if (stands % 2 != 0 || stands > version ||
        !place.version.compare_exchange_strong(stands, version - 1, std::memory_order_acquire)) {
        return;
    }
    // Released one by one: who reads a word of this call finds the version odd or grown, too.
    for (size_t i = 0; i < kWords; ++i) place.words[i].store(words[i], std::memory_order_release);
    place.version.store(version, std::memory_order_release);
}

std::vector<Attempt> AttemptHistory::copy() const {
    std::vector<std::pair<uint64_t, Attempt>> found;
    for (const Place& place : mPlaces) {
        const uint64_t version = place.version.load(std::memory_order_acquire);
        if (version == 0 || version % 2 != 0) continue;
        uint64_t words[kWords];
        for (size_t i = 0; i < kWords; ++i) {
            words[i] = place.words[i].load(std::memory_order_acquire);
        }
        if (place.version.load(std::memory_order_relaxed) != version) continue;
        found.emplace_back(version, Attempt());
        memcpy(&found.back().second, words, sizeof(words));
    }
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Attempt> attempts;
    for (const auto& entry : found) attempts.push_back(entry.second);
    return attempts;
}

void ToldTable::note(const Attempt& attempt, bool disables, bool asked) {
    const PairKey key(attempt.activity, attempt.event);
    const bool agreed = attempt.answer == 0;
    const auto known = mTold.find(key);
    Told* told = known == mTold.end() ? nullptr : &known->second;
    // What clients may ask for without end, and the module refuses, is not kept.
    if (agreed && disables && !asked) {
        if (told != nullptr) mTold.erase(known);
        return;
    }
    if (told == nullptr) {
        if (!agreed) return;
        told = &mTold[key];
    }
    const bool enabled = agreed ? !disables : told->enabled;
    *told = {attempt.slot, attempt.toldNs, attempt.answer, attempt.atNs, enabled};
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
