// The environment side: passes clients' control calls straight to the native module and sends
// every event to every client. It keeps no record of who asked for what: intended, the module
// does its own bookkeeping.
//
// Unlike the activity side, both versions refuse a process's second callback, share one death
// recipient, and count a caller without binder state as process 1.
//
// Sources: EnvironmentRegistry (life, registration, death), EnvironmentControl,
// EnvironmentDelivery, EnvironmentQueries. Conversions are the activity side's.
//
// Threads and locks: as on the activity side, with one mListMutex of its own and a leaf lock.
#pragma once

#include <stdint.h>

#include <vector>

#include <utils/Mutex.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IEnvironmentInterface.h>
#include <zaltho/activity_recognition_native.h>

#include "ClientRecords.h"
#include "ClientRegistry.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using V1_0::OtherParams;

class EnvironmentInterface : public V1_1::IEnvironmentInterface {
  public:
    using RemoteListenerHidlDeathRecipient = ClientDeathRecipient<EnvironmentInterface>;

    // impl: the module's table, not owned, valid for the process's life; NULL makes an object whose
    // operations fail one by one. A second instance while one lives ends the process.
    explicit EnvironmentInterface(const environment_interface* impl);
    ~EnvironmentInterface() override;

    Return<void> registerEnvironmentCallback(
            const sp<V1_0::IEnvironmentChangedCallback>& callback) override;
    Return<void> getSupportedEnvironmentsList(getSupportedEnvironmentsList_cb answer) override;
    Return<int32_t> initEnvironment(uint32_t environment, const OtherParams& params) override;
    Return<int32_t> exitEnvironment(uint32_t environment, const OtherParams& params) override;
    // reportLatencyNs: passed on as it is.
    Return<int32_t> enableEnvironment(uint32_t environment, uint32_t eventType,
                                      int64_t reportLatencyNs, const OtherParams& params) override;
    Return<int32_t> disableEnvironment(uint32_t environment, uint32_t eventType) override;
    Return<void> getCurrentEnvironment(getCurrentEnvironment_cb answer) override;
    Return<void> registerEnvironmentCallbackV1_1(
            const sp<V1_1::IEnvironmentChangedCallback>& callback) override;
    Return<void> getCurrentEnvironmentV1_1(getCurrentEnvironmentV1_1_cb answer) override;

    // cookie: the process id given at registration. who: the dead callback.
    void HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) EXCLUDES(mListMutex);

  private:
    friend struct EnvironmentInterfaceTestPeer;
    struct Registration;
    struct RegistrationV1_0;
    struct RegistrationV1_1;

    sp<RemoteListenerHidlDeathRecipient> SharedRecipient() EXCLUDES(mRecipientLock);

    // What the module calls; 1 to ACTIVITY_RECOGNITION_MAX_EVENTS records, read during the call.
    static void EnvChangedCb(const ar_context_event* events, int count) EXCLUDES(mListMutex);
    static void env_extend_changed_cb_v1_0(const std::vector<ActivityEventExtend>& events)
            REQUIRES(mListMutex);

    const environment_interface* const mImpl;
    // Of all registrations of both versions.
    sp<RemoteListenerHidlDeathRecipient> mDeathRecipient GUARDED_BY(mRecipientLock);
    ::android::Mutex mRecipientLock;  // leaf lock

    static ::android::Mutex mListMutex;
    static ClientTable<V1_1::IEnvironmentChangedCallback> mClientVectorV1_1 GUARDED_BY(mListMutex);
    static ClientTable<V1_0::IEnvironmentChangedCallback> mClientVectorV1_0 GUARDED_BY(mListMutex);
    // Unguarded: objects are made and dropped by the root object alone.
    static bool sInterfaceExists;
    static const environment_callbacks sEnvCb;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
