// SPDX-License-Identifier: Apache-2.0
// The environment side: passes clients' control calls straight to the native module and sends
// every event to every client. It keeps no record of who asked for what: one client's disable is
// the module's, whatever other clients still want.
//
// Unlike the activity side, both versions refuse a process's second callback, share one death
// recipient, and count a caller without binder state as process 1.
//
// Threads and locks: as on the activity side, with one mListMutex of its own and a leaf lock.
//
// Log texts, levels and the numbers in them are fixed, misspellings included: tools match on them.
#pragma once

#include <stdint.h>

#include <vector>

#include <utils/Mutex.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IEnvironmentInterface.h>
#include <zaltho/activity_recognition_native.h>

#include "ClientTable.h"
#include "Conversions.h"
#include "Counters.h"
#include "SideState.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

class EnvironmentInterface : public V1_1::IEnvironmentInterface {
  public:
    // impl: the module's table, not owned, valid for the process's life; with NULL each operation
    // that needs the module fails on its own. A second instance while one lives ends the process.
    explicit EnvironmentInterface(const environment_interface* impl);
    ~EnvironmentInterface() override;

    // Linked to a client's death; forwards the notice to HandleHidlDeath.
    using RemoteListenerHidlDeathRecipient = ClientDeathRecipient<EnvironmentInterface>;
    // cookie: the process id given at registration. who: the dead callback.
    void HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) EXCLUDES(mListMutex);

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

    // For the dump: a copy of the tables, from any thread. Asks the module nothing, logs nothing.
    CommonState look() EXCLUDES(mListMutex);
    static const SideCounters& counters() { return sCounters; }

  private:
    friend struct EnvironmentInterfaceTestPeer;

    // What the module calls; 1 to ACTIVITY_RECOGNITION_MAX_EVENTS records, read during the call.
    static void EnvChangedCb(const ar_context_event* events, int count) EXCLUDES(mListMutex);
    static void env_extend_changed_cb_v1_0(const std::vector<ActivityEventExtend>& events)
            REQUIRES(mListMutex);

    const environment_interface* const mImpl;
    // Of all registrations of both versions.
    SharedRecipient<EnvironmentInterface> mDeathRecipient;

    // Defined in this order, which is that of construction at load.
    static Mutex mListMutex;
    static ClientTable<V1_1::IEnvironmentChangedCallback> mClientVectorV1_1 GUARDED_BY(mListMutex);
    static ClientTable<V1_0::IEnvironmentChangedCallback> mClientVectorV1_0 GUARDED_BY(mListMutex);
    // Unguarded: only the root object makes instances, one at a time.
    static bool sInterfaceExists;
    static const environment_callbacks sEnvCb;
    static SideCounters sCounters;  // for the dump alone; needs no lock
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
