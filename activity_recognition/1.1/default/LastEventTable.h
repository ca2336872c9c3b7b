// SPDX-License-Identifier: Apache-2.0
// The event type that was routed last to each client for each activity.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include <utils/Mutex.h>

#include "IndexedTable.h"
#include "RequestTables.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// One record for a client and an activity, in the order of their first events. Delivery notes
// events, disabling removes records. What a batch's events note again for the same clients is
// deferred and written once, before anybody looks: nearly all of them cost no lock and no look-up.
//
// Callers hold two locks that this knows nothing of: delivery's for what only delivery calls, and
// the requests' where it says so. A removal is announced with the requests' lock, which writes what
// was deferred and stops deferring until it is done; so a deferred write never meets a record that
// is gone.
class LastEventTable {
  public:
    // Where the events of a pair are noted, as walking its requests has found it.
    struct Notes {
        PairKey key;
        std::vector<EventResponseData*> records;
        uint64_t removals;  // of the activity, before the walk
        uint32_t last;      // position in the batch of its latest event, which delivery sets
    };

    // Makes event the client's last one for the activity; a record that stands keeps its timestamp.
    // Called with the requests' lock.
    void note(uint64_t pid, uint32_t activity, uint32_t event, int64_t timestamp) EXCLUDES(mLock);

    // A removal for the activity is about to come. Called with the requests' lock; erase() then
    // follows without.
    void announceErase(uint32_t activity) EXCLUDES(mLock);
    // Removes the client's first record of this activity and event, if any. Was announced.
    void erase(uint64_t pid, uint32_t activity, uint32_t event) EXCLUDES(mLock);
    // How many records there are; false when the lock cannot be had in time.
    bool look(size_t* size) EXCLUDES(mLock);

    // ---- Delivery's. All but settle() are called with the requests' lock.

    // A walk of the pair's requests starts, which notes an event for each and adds its record.
    Notes startWalk(const PairKey& key) EXCLUDES(mLock);
    void addTo(Notes& notes, uint64_t pid) EXCLUDES(mLock);
    // Until changes() grows, does for this event and those that follow what further walks of the
    // same requests would do. False when records were removed since the walk, or are about to be:
    // then they must be walked. The notes must live until settle().
    bool defer(Notes& notes) EXCLUDES(mLock);
    // Grows when what was deferred is written: what is noted from then on must be deferred anew.
    uint64_t changes() const { return mChanges; }
    // Writes what the batch has deferred.
    void settle() EXCLUDES(mLock);

  private:
    friend struct ActivityInterfaceTestPeer;

    // Activities that share a slot only cost each other a walk.
    static constexpr size_t kSlots = 64;
    static size_t slotOf(uint32_t activity) { return activity % kSlots; }
    void settle(size_t slot) REQUIRES(mLock);

    ::android::Mutex mLock;  // leaf lock
    IndexedTable<EventResponseData, ClientActivityOf> mRecords GUARDED_BY(mLock);
    // Of an activity's two pairs. Those of another one in the slot make them be written at once.
    Notes* mDeferred[kSlots][2] GUARDED_BY(mLock) = {};
    uint64_t mDeferring = 0;  // bits of the slots that may have something deferred; delivery's
    // Grows under the leaf lock and one of the callers' locks; delivery, which reads it, has both.
    uint64_t mChanges = 0;
    uint64_t mRemovals[kSlots] GUARDED_BY(mLock) = {};
    uint32_t mErasing[kSlots] GUARDED_BY(mLock) = {};  // announced, not yet done
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
