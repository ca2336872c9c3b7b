// SPDX-License-Identifier: Apache-2.0
// The activity side: shares the native module's activity table among any number of clients.
//
// Sources: ActivityInterface (class-wide state, life, queries, what the dump shows),
// ActivityClients (registration, death), ActivityEnablement (enable, disable, flush, barriers),
// ActivityDelivery (events).
//
// Threads: clients' calls and death notices come on binder threads, native callbacks on the
// module's. Locks are taken in the order mListMutex, eventMutex, then one of the leaf locks
// (mNativeLock, the last events', the recipients'); under a leaf lock neither clients nor the
// module are called and nothing else is locked. mListMutex is held across calls to clients, no lock
// across a call into the module. So a client may enable, disable, flush and query from inside a
// callback, but must not register there, and a module may call back from inside its own slots
// unless a client's callback led there.
//
// Log texts, levels and the numbers in them are fixed, misspellings included: tools match on them.
#pragma once

#include <stdint.h>

#include <vector>

#include <utils/Mutex.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityInterface.h>
#include <zaltho/activity_recognition_native.h>

#include "ClientTable.h"
#include "Conversions.h"
#include "Counters.h"
#include "EnableRequestTable.h"
#include "EnablementHistory.h"
#include "LastEventTable.h"
#include "RequestRules.h"
#include "RequestTables.h"
#include "RoutedBatch.h"
#include "SideState.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

class ActivityInterface : public V1_1::IActivityInterface,
                          public RecordConversions,
                          public RequestRules {
  public:
    // impl: the module's table, not owned, valid for the process's life; with NULL each operation
    // that needs the module fails on its own. A second instance while one lives ends the process.
    explicit ActivityInterface(const activity_interface* impl);
    ~ActivityInterface() override;

    // Linked to a client's death; forwards the notice to HandleHidlDeath.
    using RemoteListenerHidlDeathRecipient = ClientDeathRecipient<ActivityInterface>;
    // cookie: the process id given at registration. who: the dead callback. The module is told
    // nothing: it keeps its enables until another enable or disable of the pair.
    void HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) EXCLUDES(mListMutex, eventMutex);

    Return<void> registerActivityCallback(
            const sp<V1_0::IActivityChangedCallback>& callback) override;
    Return<void> getSupportedActivitiesList(getSupportedActivitiesList_cb answer) override;
    Return<int32_t> enableActivityEvent(uint32_t activity, uint32_t event,
                                        int64_t reportLatencyNs) override;
    Return<int32_t> enableActivityEventExtend(uint32_t activity, uint32_t event,
                                              int64_t reportLatencyNs,
                                              const OtherParams& params) override;
    Return<void> getCurrentActivity(getCurrentActivity_cb answer) override;
    Return<int32_t> disableActivityEvent(uint32_t activity, uint32_t event) override;
    Return<int32_t> flush() override;
    Return<void> registerActivityCallbackV1_1(
            const sp<V1_1::IActivityChangedCallback>& callback) override;
    Return<void> getCurrentActivityV1_1(getCurrentActivityV1_1_cb answer) override;

    // For the dump: a copy of each table, from any thread. Asks the module nothing, logs nothing.
    ActivityState look() EXCLUDES(mListMutex, eventMutex, mNativeLock);
    static const ActivityCounters& counters() { return sCounters; }

  private:
    friend struct ActivityInterfaceTestPeer;

    // The rules of these names, on the class's own tables.
    static bool ValidEventActivity(uint32_t index, uint32_t activity, uint32_t event,
                                   bool& allExtended, other_params& noWakeParams)
            REQUIRES(eventMutex) {
        return RequestRules::ValidEventActivity(index, activity, event, allExtended, noWakeParams,
                                                mEventData);
    }
    static void RemoveFirst(uint64_t pid, uint32_t activity, uint32_t event) REQUIRES(eventMutex) {
        RequestRules::RemoveFirst(pid, activity, event, firstReport);
    }

    // askedNs: the latency that the client named.
    void AddRequest(const EnableRequestData& request, int64_t askedNs) EXCLUDES(eventMutex);
    int64_t MergedLatency(uint32_t activity, uint32_t event) EXCLUDES(eventMutex);
    void TakeBack(const EnableRequestData& request) EXCLUDES(eventMutex);
    // What follows is for an attempt's pair, and notes there what the module is told and answers.
    // The module's result, or 1 without a table or with a name that is too long.
    int32_t EnableActivityEvent(int64_t reportLatencyNs, const OtherParams& params,
                                Attempt* attempt) EXCLUDES(eventMutex, mNativeLock);
    // Tell the module of a pair's first client; false when it refuses.
    bool UpdateEnableNative(const EnableToNativeData& record, Attempt* attempt)
            EXCLUDES(eventMutex, mNativeLock);
    bool UpdateEnableNativeExend(const EnableToNativeData& record, const OtherParams& params,
                                 Attempt* attempt) EXCLUDES(eventMutex, mNativeLock);
    // Re-merges the pair from the requests that remain: the module's result, 1 without a table, or
    // -1 when no native enable is recorded.
    int32_t DisableOtherActivityEvent(uint32_t activity, uint32_t event, Attempt* attempt)
            EXCLUDES(eventMutex, mNativeLock);
    // Call a slot, with no lock held; its result. Require mImpl.
    int32_t TellEnable(int64_t latencyNs, Attempt* attempt) EXCLUDES(eventMutex, mNativeLock);
    int32_t TellEnableExtend(int64_t latencyNs, const other_params& params, Attempt* attempt)
            EXCLUDES(eventMutex, mNativeLock);
    int32_t TellDisable(Attempt* attempt) EXCLUDES(eventMutex, mNativeLock);
    void NoteAnswer(const Attempt& attempt, bool disables) EXCLUDES(eventMutex, mNativeLock);

    // Takes the barrier of a client that joined a pair. Requires mImpl.
    void HandleFirstReport(uint64_t pid, uint32_t activity, uint32_t event) EXCLUDES(eventMutex);

    // What the module calls; 1 to ACTIVITY_RECOGNITION_MAX_EVENTS records, read during the call.
    static void ActChangedCb(const activity_event* events, int32_t count) EXCLUDES(mListMutex);
    static void ActExtendChangedCb(const ar_context_event* events, int32_t count)
            EXCLUDES(mListMutex);

    // Routes plain events to the requests they match. pid: the delivering thread's caller.
    static void PackageNamePush(const activity_event* events, int32_t count, int32_t pid,
                                RoutedBatch& batch) REQUIRES(mListMutex) EXCLUDES(eventMutex);
    // Grows with everything that routes depend on.
    static uint64_t RouteChanges() REQUIRES(mListMutex, eventMutex) {
        return mEventData.changes() + firstReport.changes() + mLastActivityEvent.changes();
    }
    // What the event meets, and as a rule those of its pair that follow. Never NULL. Not inlined,
    // as few events need it.
    static const Route* FindRoute(const activity_event& event, int32_t pid, RoutedBatch& batch)
            __attribute__((noinline)) REQUIRES(mListMutex, eventMutex);
    // Walks the pair's requests with an event that no barrier holds back, and plans the events that
    // follow while the requests stand.
    static void WalkRequests(EnableRequestTable::Pair& pair, const activity_event& event,
                             int32_t pid) REQUIRES(mListMutex, eventMutex);
    // Does for one request what an event of its pair does.
    static void OneDataPush(int32_t activity, const activity_event& event, int32_t pid,
                            const EnableRequestData& request, std::vector<EventResponseData>& batch)
            REQUIRES(mListMutex, eventMutex);
    // The barrier, or 0.
    static int64_t GetLastTime(uint64_t pid, uint32_t activity, uint32_t event)
            REQUIRES(eventMutex);
    // Records event as the type routed last to the client for the activity; a record that stands
    // keeps its timestamp. Always true: repeats are not held back.
    static bool CheckRepeatedEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                   uint64_t timestamp, LastEventTable& table);

    // Delivers a routed batch, process by process in the order of packageNames.
    static void ActivitiesReport(RoutedBatch& batch) REQUIRES(mListMutex);
    // position: of the process in packageNames.
    static void ReportV1_1(uint32_t position, RoutedBatch& batch) REQUIRES(mListMutex);
    static void ActChangedCbV1_0(const std::vector<ActivityEvent>& events) REQUIRES(mListMutex);
    static void ActExtendChangedCbV1_0(const std::vector<ActivityEventExtend>& events)
            REQUIRES(mListMutex);

    // Of all version 1.0 registrations.
    SharedRecipient<ActivityInterface> mDeathRecipient;
    const activity_interface* const mImpl;
    EnableToNativeTable mEnableToNativeData GUARDED_BY(mNativeLock);
    ToldTable mTold GUARDED_BY(mNativeLock);
    // One per version 1.1 registration. Only a replacement removes one, the first of its process:
    // those of dead clients and of failed links stay.
    RecipientTable<ActivityInterface> mDeathRecipientVectorV1_1;
    Mutex mNativeLock;  // leaf lock

    // The native callbacks have no context pointer: what they need is class-wide. Defined in this
    // order, which is that of construction at load.
    static Mutex mListMutex ACQUIRED_BEFORE(eventMutex);
    static Mutex eventMutex;
    static ClientTable<V1_1::IActivityChangedCallback> mClientVectorV1_1 GUARDED_BY(mListMutex);
    static ClientTable<V1_0::IActivityChangedCallback> mClientVectorV1_0 GUARDED_BY(mListMutex);
    static LastEventTable mLastActivityEvent;
    static EnableRequestTable mEventData GUARDED_BY(eventMutex);
    static FirstReportTable firstReport GUARDED_BY(eventMutex);
    static RouteMemory sRoutes GUARDED_BY(eventMutex);
    // Every process that ever had a routed event: version 1.0 clients get a list for each, also the
    // dead ones.
    static ReportList packageNames GUARDED_BY(mListMutex);
    static RoutedBatch sBatch GUARDED_BY(mListMutex);  // the one being delivered
    // Unguarded: only the root object makes instances, one at a time.
    static bool sInterfaceExists;
    static const activity_callbacks sActCb;
    // For the dump alone; neither needs a lock.
    static ActivityCounters sCounters;
    static AttemptHistory sHistory;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
