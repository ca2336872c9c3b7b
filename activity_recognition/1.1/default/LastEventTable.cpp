// SPDX-License-Identifier: Apache-2.0
#include "LastEventTable.h"

#include <utility>

#include "LockInTime.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

using ::android::Mutex;

void LastEventTable::note(uint64_t pid, uint32_t activity, uint32_t event, int64_t timestamp) {
    Mutex::Autolock lock(mLock);
    settle(slotOf(activity));
    EventResponseData* const record = mRecords.first({pid, activity});
    if (record != nullptr) {
        record->event = event;
    } else {
        mRecords.push_back({pid, activity, event, timestamp, {}, 0});
    }
}

void LastEventTable::announceErase(uint32_t activity) {
    Mutex::Autolock lock(mLock);
    settle(slotOf(activity));
    ++mErasing[slotOf(activity)];
}

void LastEventTable::erase(uint64_t pid, uint32_t activity, uint32_t event) {
    Mutex::Autolock lock(mLock);
    --mErasing[slotOf(activity)];
    const auto fits = [event](const EventResponseData& record) { return record.event == event; };
    if (mRecords.erase({pid, activity}, fits)) ++mRemovals[slotOf(activity)];
}

bool LastEventTable::look(size_t* size) {
    if (!LockInTime(mLock)) return false;
    *size = mRecords.size();
    mLock.unlock();
    return true;
}

LastEventTable::Notes LastEventTable::startWalk(const PairKey& key) {
    Mutex::Autolock lock(mLock);
    return {key, {}, mRemovals[slotOf(key.first)], 0};
}

void LastEventTable::addTo(Notes& notes, uint64_t pid) {
    Mutex::Autolock lock(mLock);
    notes.records.push_back(mRecords.first({pid, notes.key.first}));
}

bool LastEventTable::defer(Notes& notes) {
    const size_t slot = slotOf(notes.key.first);
    Mutex::Autolock lock(mLock);
    if (mErasing[slot] != 0 || mRemovals[slot] != notes.removals) return false;
    Notes** const deferred = mDeferred[slot];
    if (deferred[0] == &notes || deferred[1] == &notes) return true;
    if (deferred[1] != nullptr) settle(slot);
    deferred[deferred[0] == nullptr ? 0 : 1] = &notes;
    mDeferring |= uint64_t{1} << slot;
    return true;
}

void LastEventTable::settle(size_t slot) {
    Notes** const deferred = mDeferred[slot];
    if (deferred[0] == nullptr) return;
    // The later one overwrites what the other has written for a client that wants both.
    if (deferred[1] != nullptr && deferred[1]->last < deferred[0]->last) {
        std::swap(deferred[0], deferred[1]);
    }
    for (Notes*& notes : mDeferred[slot]) {
        if (notes == nullptr) continue;
        for (EventResponseData* record : notes->records) record->event = notes->key.second;
        notes = nullptr;
    }
    ++mChanges;
}

void LastEventTable::settle() {
    Mutex::Autolock lock(mLock);
    for (; mDeferring != 0; mDeferring &= mDeferring - 1) settle(__builtin_ctzll(mDeferring));
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
