// The activity side: shares the native module's activity table among any number of clients.
//
// Sources: ActivityTables (class-wide state), ActivityRegistry (life, registration, death),
// ActivityRequests (rules and lookups on the request tables), ActivityEnablement (enable, disable,
// flush, barriers), ActivityDelivery (events), ActivityQueries, ActivityConversions.
//
// Threads: clients' calls and death notices come on binder threads, native callbacks on the
// module's. Locks are taken in the order mListMutex, eventMutex, then one of the two leaf locks
// (sLastEventLock, mTableLock); under a leaf lock nothing is called and nothing else is locked.
// mListMutex is held across calls to clients, no lock across a call into the module. So a client
// may enable, disable, flush and query from inside a callback, but must not register there, and a
// module may call back from inside its own slots unless a client's callback led there.
#pragma once

#include <stdint.h>

#include <vector>

#include <utils/Mutex.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityInterface.h>
#include <zaltho/activity_recognition_native.h>

#include "ClientRecords.h"
#include "ClientRegistry.h"
#include "IndexedTable.h"
#include "Records.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using V1_0::OtherParams;

// Floor and rounding unit of requested latencies.
constexpr int64_t LATENCY_GRANULARITY_NS = 1000000000;
// What a no-wake request asks of the module instead of its own latency: seven days.
constexpr int64_t NO_WAKE_REPORT_LATENCY_NS = 604800000000000;

class ActivityInterface : public V1_1::IActivityInterface {
  public:
    using RemoteListenerHidlDeathRecipient = ClientDeathRecipient<ActivityInterface>;

    // impl: the module's table, not owned, valid for the process's life; NULL makes an object whose
    // operations fail one by one. A second instance while one lives ends the process.
    explicit ActivityInterface(const activity_interface* impl);
    ~ActivityInterface() override;

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

    // cookie: the process id given at registration. who: the dead callback. The module is told
    // nothing: it keeps its enables until another enable or disable of the pair.
    void HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) EXCLUDES(mListMutex, eventMutex);

    // Conversions of native records, the environment side's too. Each starts from a zero-filled
    // record. The version 1.0 form has no extra, and value in its place: intended, clients of that
    // version are built on this layout.
    static ActivityEvent convertAEToAEV1_0(const activity_event& event);
    static ActivityEventV1_1 convertAEToAEV1_1(const activity_event& event);
    static ActivityEventExtend convertACEToAEEV1_0(const ar_context_event& event);
    static ActivityEventExtendV1_1 convertACEToAEEV1_1(const ar_context_event& event);

    // Rules on requests.
    static bool ValidEventType(uint32_t event);
    // Whole units of LATENCY_GRANULARITY_NS, at least one. Unsigned: a negative latency counts as
    // a huge one.
    static uint64_t RoundNumbers(uint64_t latencyNs);
    // 0 or -1.
    static int32_t ValidActivityEventExtend(uint32_t event, int32_t pid, const OtherParams& params);
    static bool IsNoWake(const OtherParams& params);
    // True for the no-wake pattern. Intended, whatever the name says.
    static bool IsRequestWake(const EnableRequestData& request);
    // The merge: the smallest latency that anybody wants of the pair; 0 when nobody does.
    static int64_t MinReportLatencyNsFunc(uint32_t activity, uint32_t event,
                                          const EnableRequestTable& table);

    // Lookups: the first match.
    static int32_t FindEnableRequestDataIndex(uint64_t pid, uint32_t activity, uint32_t event,
                                              const EnableRequestTable& table);
    static EnableRequestData FindEnableRequestData(uint64_t pid, uint32_t activity, uint32_t event,
                                                   const EnableRequestTable& table);
    // -1 when the table is empty, but 0 when it holds other pairs only: intended, the removal
    // below relies on it.
    static int32_t FindEnableToNativeDataIndex(uint32_t activity, uint32_t event,
                                               const std::vector<EnableToNativeData>& table);
    static EnableToNativeData FindEnableToNativeData(uint32_t activity, uint32_t event,
                                                     const std::vector<EnableToNativeData>& table);
    // True when the pair is absent. Intended, whatever the name says.
    static bool FindEnableToNativeDataExist(uint32_t activity, uint32_t event,
                                            const std::vector<EnableToNativeData>& table);

    // Removals: the first match, if any.
    static void RemoveActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                    EnableRequestTable& table);
    // Without a match the table's first record goes: intended, see the lookup above.
    static void RemoveEnableToNativeData(uint32_t activity, uint32_t event,
                                         std::vector<EnableToNativeData>& table);
    static void RemoveLastActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                        LastEventTable& table);

    // Makes event the last one that the client was sent of the activity, whatever its type; a
    // record that stands keeps its timestamp. True: events that repeat are not held back.
    static bool CheckRepeatedEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                   uint64_t timestamp, LastEventTable& table);

  private:
    friend struct ActivityInterfaceTestPeer;
    struct Registration;
    struct RegistrationV1_0;
    struct RegistrationV1_1;

    sp<RemoteListenerHidlDeathRecipient> SharedRecipient() EXCLUDES(mTableLock);
    void RememberRecipient(const sp<RemoteListenerHidlDeathRecipient>& recipient, unsigned long pid)
            EXCLUDES(mTableLock);
    void ForgetRecipient(unsigned long pid) EXCLUDES(mTableLock);

    // One step of the scan that re-merges a pair: false unless the request at index is of the
    // pair. A request whose first parameter is 0.0 clears allExtended; a no-wake request leaves
    // its parameters in noWakeParams.
    static bool ValidEventActivity(uint32_t index, uint32_t activity, uint32_t event,
                                   bool& allExtended, other_params& noWakeParams)
            REQUIRES(eventMutex);

    void AddRequest(const EnableRequestData& request) EXCLUDES(eventMutex);
    int64_t MergedLatency(uint32_t activity, uint32_t event) EXCLUDES(eventMutex);
    int32_t ConcludeEnable(const EnableRequestData& request, bool joined, bool accepted)
            EXCLUDES(eventMutex);
    int32_t EnableActivityEvent(uint32_t activity, uint32_t event, int64_t reportLatencyNs,
                                const OtherParams& params);
    bool UpdateEnableNative(const EnableToNativeData& record) EXCLUDES(mTableLock);
    bool UpdateEnableNativeExend(const EnableToNativeData& record, const OtherParams& params)
            EXCLUDES(mTableLock);
    int32_t DisableOtherActivityEvent(uint32_t activity, uint32_t event) EXCLUDES(eventMutex);

    // Takes the barrier of a client that joined a pair.
    void HandleFirstReport(uint64_t pid, uint32_t activity, uint32_t event) EXCLUDES(eventMutex);
    static void RemoveFirst(uint64_t pid, uint32_t activity, uint32_t event) REQUIRES(eventMutex);

    // What the module calls; 1 to ACTIVITY_RECOGNITION_MAX_EVENTS records, read during the call.
    static void ActChangedCb(const activity_event* events, int32_t count) EXCLUDES(mListMutex);
    static void ActExtendChangedCb(const ar_context_event* events, int32_t count)
            EXCLUDES(mListMutex);

    // Routes plain events to the requests they match. pid: the delivering thread's caller.
    static void PackageNamePush(const activity_event* events, int32_t count, int32_t pid,
                                std::vector<EventResponseData>& batch) REQUIRES(mListMutex)
            EXCLUDES(eventMutex);
    static void OneDataPush(const activity_event& event, const EnableRequestData& request,
                            std::vector<EventResponseData>& batch)
            REQUIRES(mListMutex, eventMutex, sLastEventLock);
    // The barrier, or 0.
    static int64_t GetLastTime(uint64_t pid, uint32_t activity, uint32_t event)
            REQUIRES(eventMutex);

    // Delivers a routed batch, process by process in the order of packageNames.
    static void ActivitiesReport(const std::vector<EventResponseData>& batch) REQUIRES(mListMutex);
    // position: of the process in packageNames.
    static void ReportV1_1(size_t position, const ClientPositions& clients,
                           const std::vector<ActivityEventV1_1>& events) REQUIRES(mListMutex);
    static void ActChangedCbV1_0(const std::vector<ActivityEvent>& events) REQUIRES(mListMutex);
    static void ActExtendChangedCbV1_0(const std::vector<ActivityEventExtend>& events)
            REQUIRES(mListMutex);

    // Of all version 1.0 registrations.
    sp<RemoteListenerHidlDeathRecipient> mDeathRecipient GUARDED_BY(mTableLock);
    const activity_interface* const mImpl;
    std::vector<EnableToNativeData> mEnableToNativeData GUARDED_BY(mTableLock);
    // One recipient per version 1.1 registration, with its process id. It goes when the process
    // replaces its callback; a dead client's stays: intended.
    ::android::KeyedVector<sp<RemoteListenerHidlDeathRecipient>, unsigned long>
            mDeathRecipientVectorV1_1 GUARDED_BY(mTableLock);
    // Leaf lock of what mListMutex and eventMutex don't guard.
    ::android::Mutex mTableLock;

    // The native callbacks have no context pointer: what they need is class-wide. Defined in this
    // order in ActivityTables.cpp.
    static ::android::Mutex mListMutex ACQUIRED_BEFORE(eventMutex);
    static ::android::Mutex eventMutex;
    static ::android::Mutex sLastEventLock ACQUIRED_AFTER(eventMutex);  // leaf lock
    static ClientTable<V1_1::IActivityChangedCallback> mClientVectorV1_1 GUARDED_BY(mListMutex);
    static ClientTable<V1_0::IActivityChangedCallback> mClientVectorV1_0 GUARDED_BY(mListMutex);
    static LastEventTable mLastActivityEvent GUARDED_BY(sLastEventLock);
    static EnableRequestTable mEventData GUARDED_BY(eventMutex);
    static FirstReportTable firstReport GUARDED_BY(eventMutex);
    // Every process that ever had a routed event, in order of appearance. Never pruned: intended,
    // version 1.0 clients get a list for each.
    static ClientList packageNames GUARDED_BY(mListMutex);
    // Unguarded: objects are made and dropped by the root object alone.
    static bool sInterfaceExists;
    static const activity_callbacks sActCb;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
