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
// events, disabling removes records. Events that a batch notes again for clients that it has noted
// before cost nothing each: what they change is written once, before anybody looks.
//
// Callers hold two locks that this knows nothing of: delivery's for what only delivery calls, and
// the requests' where it says so. They keep deferred writes and removals apart without the leaf
// lock, which is taken only where records are touched.
class LastEventTable {
  public:
    // Where the events of a pair are noted, as walking its requests has found it.
    struct Notes {
        PairKey key;
        std::vector<EventResponseData*> records;
        uint64_t removals;  // of the activity, before the walk
    };

    // Makes event the client's last one for the activity; a record that stands keeps its timestamp.
    void note(uint64_t pid, uint32_t activity, uint32_t event, int64_t timestamp) EXCLUDES(mLock);

    // A removal for the activity is about to come. Called with the requests' lock; erase() then
    // follows without.
    void announceErase(uint32_t activity) EXCLUDES(mLock);
    // Removes the client's first record of this activity and event, if any.
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

    // Writes of two pairs that may take turns; the older goes first. Changed by delivery with the
    // requests' lock, and by others with that and the leaf lock.
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
