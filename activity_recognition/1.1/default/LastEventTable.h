// The event type that was routed last to each client for each activity.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <utility>
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
    };

    // Makes event the client's last one for the activity; a record that stands keeps its timestamp.
    // Called with the requests' lock.
    void note(uint64_t pid, uint32_t activity, uint32_t event, int64_t timestamp) EXCLUDES(mLock);

    // A removal for the activity is about to come. Called with the requests' lock; erase() then
    // follows without.
    void announceErase(uint32_t activity) EXCLUDES(mLock);
    // Removes the client's first record of this activity and event, if any. Was announced.
    void erase(uint64_t pid, uint32_t activity, uint32_t event) EXCLUDES(mLock);

    // ---- Delivery's. All but settle() are called with the requests' lock.

    // A walk of the pair's requests starts, which notes an event for each and adds its record.
    Notes startWalk(const PairKey& key) EXCLUDES(mLock);
    void addTo(Notes& notes, uint64_t pid) EXCLUDES(mLock);
    // Does what another walk of the same requests would do. False when records were removed since,
    // or are about to be: then they must be walked. The notes must live until settle().
    bool noteAgain(const Notes& notes) EXCLUDES(mLock) {
        Deferred& deferred = mDeferred[slotOf(notes.key.first)];
        if (deferred.newer == &notes) return true;
        if (deferred.older != &notes) return defer(notes);
        std::swap(deferred.older, deferred.newer);
        return true;
    }
    // Writes what the batch has deferred.
    void settle() EXCLUDES(mLock);

  private:
    friend struct ActivityInterfaceTestPeer;

    // Writes of two pairs that may take turns; the older goes first. Read and changed by delivery,
    // and by others with the requests' lock and the leaf lock, which keep delivery out: it has one
    // of them wherever it looks.
    struct Deferred {
        const Notes* older = nullptr;
        const Notes* newer = nullptr;
    };

    // Activities that share a slot only cost each other a walk.
    static constexpr size_t kSlots = 64;
    static size_t slotOf(uint32_t activity) { return activity % kSlots; }
    bool defer(const Notes& notes) EXCLUDES(mLock);
    void settle(size_t slot) REQUIRES(mLock);

    ::android::Mutex mLock;  // leaf lock
    IndexedTable<EventResponseData, ClientActivityOf> mRecords GUARDED_BY(mLock);
    Deferred mDeferred[kSlots];
    uint64_t mDeferring = 0;  // bits of the slots that may have something deferred; delivery's
    uint64_t mRemovals[kSlots] GUARDED_BY(mLock) = {};
    uint32_t mErasing[kSlots] GUARDED_BY(mLock) = {};  // announced, not yet done
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
