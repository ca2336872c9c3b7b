// SPDX-License-Identifier: Apache-2.0
#include "RoutedBatch.h"

#include <algorithm>
#include <numeric>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr size_t kKeptLists = 16;  // 120 KB for full batches

}  // namespace

void RoutedBatch::start(const std::shared_ptr<DeliveryPlan>& plan) {
    if (plan->batch == mNumber) return;
    plan->batch = mNumber;
    plan->run = static_cast<uint32_t>(mRuns.size());
    plan->length = 0;
    mRuns.push_back(plan);
}

size_t RoutedBatch::routed() const {
    size_t routed = 0;
    for (const auto& run : mRuns) routed += run->length * run->processes.size();
    return routed;
}

const std::vector<uint32_t>& RoutedBatch::group(size_t all, bool everybody) {
    constexpr uint32_t kNoRun = ~0u;
    mEverybody = everybody;
    mShareOf.resize(all, kNothing);
    mShares.assign(1, {kNothing, kNoRun, static_cast<uint32_t>(all), kNoRun, kNothing, 0});
    for (uint32_t run = 0; run < mRuns.size(); ++run) {
        for (const uint32_t position : mRuns[run]->processes) {
            const uint32_t under = mShareOf[position];
            if (under == kNothing) mPositions.push_back(position);
            if (mShares[under].grownFor != run) {
                mShares[under].grownFor = run;
                mShares[under].grown = static_cast<uint32_t>(mShares.size());
                mShares.push_back({under, run, 0, kNoRun, kNothing, 0});
            }
            --mShares[under].users;
            mShareOf[position] = mShares[under].grown;
            ++mShares[mShareOf[position]].users;
        }
    }
    if (everybody) {
        mPositions.resize(all);
        std::iota(mPositions.begin(), mPositions.end(), 0);
    } else if (!std::is_sorted(mPositions.begin(), mPositions.end())) {
        std::sort(mPositions.begin(), mPositions.end());
    }
    return mPositions;
}

const RoutedBatch::Lists& RoutedBatch::listsOf(uint32_t position) {
    Share& share = mShares[mShareOf[position]];
    if (share.list != 0) return mLists[share.list];
    if (share.users > 1) {
        share.list = mUsedLists++;
    } else {
        if (mAlone == mShareOf[position]) return mLists[0];
        mAlone = mShareOf[position];
    }
    if (mLists.size() < mUsedLists) mLists.resize(mUsedLists);
    fill(share, &mLists[share.list]);
    return mLists[share.list];
}

void RoutedBatch::fill(const Share& share, Lists* lists) {
    mCopies.resize(mRuns.size(), 0);
    size_t length = 0;
    for (const Share* part = &share; part != &mShares[kNothing]; part = &mShares[part->under]) {
        ++mCopies[part->run];
        length += mRuns[part->run]->length;
    }
    const bool whole = std::all_of(mCopies.begin(), mCopies.end(),
                                   [](uint32_t copies) { return copies == 1; });
    if (whole) {  // the commonest share stands there already, padding included
        lists->eventsV1_1.assign(mEvents, mEvents + length);
    } else {
        fill(length, &lists->eventsV1_1);
    }
    if (mEverybody) fill(length, &lists->eventsV1_0);
    std::fill(mCopies.begin(), mCopies.end(), 0);
}

template <typename Record>
void RoutedBatch::fill(size_t length, std::vector<Record>* list) const {
    list->resize(length);
    Record* to = list->data();
    for (uint32_t at = 0; at < mLength; ++at) {
        // A share may have a run twice: a process with two requests for the pair gets each event
        // twice.
        for (uint32_t copies = mCopies[mRunOf[at]]; copies > 0; --copies) {
            AssignWhole(mEvents[at], to++);
        }
    }
}

void RoutedBatch::clear() {
    for (const uint32_t position : mPositions) mShareOf[position] = kNothing;
    mPositions.clear();
    mLength = 0;
    mHeldBack = 0;
    mRuns.clear();
    // Many lists go with the first batch that needs fewer.
    mLists.resize(std::max<size_t>(std::min(mLists.size(), kKeptLists), mUsedLists));
    mUsedLists = 1;
    mAlone = kNoShare;
    ++mNumber;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
