// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "AR_impl_Env"

#include "EnvironmentInterface.h"

#include <log/log.h>

#include "NativeQueries.h"
#include "Trace.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr RegistrationTexts kRegistrationV1_0 = {
        LOG_TAG,
        /*pidWithoutCaller=*/1,
        "registerEnvironmentCallback new mDeathRecipient failed",
        "IPCThreadState::self() V1_0 returns nullptr",
        AR_FORMAT("It's already register pid[%lu] callback, V1_0", 0ul),
        AR_FORMAT("Transaction error in linking to EnvironmentInterfaceV1_0 death: %s", ""),
        "Unable to link to EnvironmentInterfaceV1_0 death notifications",
        AR_FORMAT(
                "Pid[%lu] link to EnvironmentInterfaceV1_0 death notification successful, total cb[%d]",
                0ul, 0),
};
constexpr RegistrationTexts kRegistrationV1_1 = {
        LOG_TAG,
        /*pidWithoutCaller=*/1,
        "registerEnvironmentCallbackV1_1 Death new failed",
        "IPCThreadState::self() V1_1 returns nullptr",
        AR_FORMAT("It's already register pid[%lu] callback, V1_1", 0ul),
        AR_FORMAT("Transaction error in linking to EnvironmentInterfaceV1_1 death: %s", ""),
        "Unable to link to EnvironmentInterfaceV1_1 death notifications",
        AR_FORMAT(
                "Pid[%lu] link to EnvironmentInterfaceV1_1 death notification successful, total cb[%d]",
                0ul, 0),
};
constexpr DeathTexts kDeath = {
        LOG_TAG,
        AR_FORMAT("######V1_1 ENV Match, remainder cb[%d]!!!######", 0),
        AR_FORMAT("######V1_0 ENV Match, remainder cb[%d]!!!######", 0),
};
constexpr BroadcastTexts kChangedV1_1 = {
        LOG_TAG,
        AR_FORMAT("envChangedCb V1_1 callback is nullptr, PID[%lu]", 0ul),
        AR_FORMAT("%s: Unable to invoke onEnvironmentChanged V1_1, PID[%lu]", "", 0ul),
        "EnvChangedCb",
};
constexpr BroadcastTexts kChangedV1_0 = {
        LOG_TAG,
        AR_FORMAT("onEnvironmentChanged V1_0 callback is nullptr, PID[%lu]", 0ul),
        AR_FORMAT("%s: Unable to invoke onEnvironmentChanged V1_0 PID[%lu]", "", 0ul),
        "env_extend_changed_cb_v1_0",
};
constexpr QueryTexts kSupported = {
        LOG_TAG,
        AR_FORMAT("%s: mImpl interface is not available", ""),
        AR_FORMAT("%s: can not get support env, list_size(%d)", "", 0),
        "getSupportedEnvironmentsList",
        "env new failed",
};
constexpr QueryTexts kCurrentV1_0 = {
        LOG_TAG,
        AR_FORMAT("%s: mImpl V1_0 interface is not available", ""),
        AR_FORMAT("%s: mImpl V1_0 getCurrentENV error size(%d)", "", 0),
        "getCurrentEnvironment",
};
constexpr QueryTexts kCurrentV1_1 = {
        LOG_TAG,
        AR_FORMAT("%s: mImpl V1_1 interface is not available", ""),
        AR_FORMAT("%s: mImpl V1_1 getCurrentEnvironment error size(%d)", "", 0),
        "getCurrentEnvironmentV1_1",
};

constexpr char kListMutex[] = "EnvironmentInterface::mListMutex";
constexpr CallSite kCallV1_1 = {"environment", "onEnvironmentChangedV1_1", kListMutex};
constexpr CallSite kCallV1_0 = {"environment", "onEnvironmentChanged", kListMutex};
constexpr CallSite kRegister = {"environment", "register_environment_callbacks", nullptr};
constexpr CallSite kGetNames = {"environment", "get_supported_environments_list", nullptr};
constexpr CallSite kGetCurrent = {"environment", "get_current_environment", nullptr};
constexpr CallSite kInit = {"environment", "init_environment", nullptr};
constexpr CallSite kExit = {"environment", "exit_environment", nullptr};
constexpr CallSite kEnable = {"environment", "enable_environment", nullptr};
constexpr CallSite kDisable = {"environment", "disable_environment", nullptr};

// Calls a slot with the arguments and the native form of params. A name that is too long is refused
// in the words of a missing table; clients learn that the module refused, not with which code.
// refusal: the log's format, of the method.
template <typename Slot, typename... Arguments>
int32_t Control(const environment_interface* impl, const CallSite& site, Slot slot,
                const char* refusal, const char* method, const OtherParams& params,
                Arguments... arguments) {
    if (impl == nullptr || !NameFits(params)) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, refusal, method);
        return kFailure;
    }
    const other_params native = ToNativeParams(params);
    return CallModule(site, ClientKey(CallingPidOrZero()), impl, slot, arguments..., &native) == 0
                   ? kSuccess
                   : kFailure;
}

}  // namespace

Mutex EnvironmentInterface::mListMutex;
ClientTable<V1_1::IEnvironmentChangedCallback> EnvironmentInterface::mClientVectorV1_1;
ClientTable<V1_0::IEnvironmentChangedCallback> EnvironmentInterface::mClientVectorV1_0;
bool EnvironmentInterface::sInterfaceExists = false;
const environment_callbacks EnvironmentInterface::sEnvCb = {EnvChangedCb};
SideCounters EnvironmentInterface::sCounters;

EnvironmentInterface::EnvironmentInterface(const environment_interface* impl)
    : mImpl(impl), mDeathRecipient(this) {
    LOG_ALWAYS_FATAL_IF(sInterfaceExists);
    sInterfaceExists = true;
    if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "EnvironmentInterface");
        return;
    }
    CallModule(kRegister, ClientKey(CallingPidOrZero()), mImpl,
               &environment_interface::register_environment_callbacks, &sEnvCb);
}

// Unlinks nobody and tells the module nothing: sEnvCb stays valid.
EnvironmentInterface::~EnvironmentInterface() {
    ALOGI("Deconstruct EnvironmentInterface");
    sInterfaceExists = false;
    mClientVectorV1_1.clear();
    mClientVectorV1_0.clear();
}

Return<void> EnvironmentInterface::registerEnvironmentCallback(
        const sp<V1_0::IEnvironmentChangedCallback>& callback) {
    return Register(callback, mDeathRecipient, {mListMutex, mClientVectorV1_0}, kRegistrationV1_0);
}

Return<void> EnvironmentInterface::registerEnvironmentCallbackV1_1(
        const sp<V1_1::IEnvironmentChangedCallback>& callback) {
    return Register(callback, mDeathRecipient, {mListMutex, mClientVectorV1_1}, kRegistrationV1_1);
}

void EnvironmentInterface::HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) {
    ALOGI("ENV serviceDied, cookie is %lu", cookie);
    sCounters.deaths.add();
    const sp<IBase> object = who.promote();
    if (object == nullptr) {
        ALOGE("Invalide IBase object, ENV");
    } else {
        Unlink(object, mDeathRecipient.get());
    }
    Mutex::Autolock lock(mListMutex);
    RemoveDeadClient(who, mClientVectorV1_1, mClientVectorV1_0, kDeath);
}

Return<int32_t> EnvironmentInterface::initEnvironment(uint32_t environment,
                                                      const OtherParams& params) {
    return Control(mImpl, kInit, &environment_interface::init_environment,
                   AR_FORMAT("%s: initEnvironment mImpl interface is not available", ""),
                   "initEnvironment", params, environment);
}

Return<int32_t> EnvironmentInterface::exitEnvironment(uint32_t environment,
                                                      const OtherParams& params) {
    return Control(mImpl, kExit, &environment_interface::exit_environment,
                   AR_FORMAT("%s: exitEnvironment mImpl interface is not available", ""),
                   "exitEnvironment", params, environment);
}

Return<int32_t> EnvironmentInterface::enableEnvironment(uint32_t environment, uint32_t eventType,
                                                        int64_t reportLatencyNs,
                                                        const OtherParams& params) {
    return Control(mImpl, kEnable, &environment_interface::enable_environment,
                   AR_FORMAT("%s: enableEnvironment mImpl interface is not available", ""),
                   "enableEnvironment", params, environment, eventType, reportLatencyNs);
}

Return<int32_t> EnvironmentInterface::disableEnvironment(uint32_t environment, uint32_t eventType) {
    if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "disableEnvironment");
        return kFailure;
    }
    const int result =
            CallModule(kDisable, ClientKey(CallingPidOrZero()), mImpl,
                       &environment_interface::disable_environment, environment, eventType);
    return result == 0 ? kSuccess : kFailure;
}

void EnvironmentInterface::EnvChangedCb(const ar_context_event* events, int count) {
    const TraceSlice slice("environment_changed");
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid envChangedCb. Count: %d", "EnvChangedCb", 73, count);
        sCounters.refusedBatches.add();
        return;
    }
    sCounters.batches.add();
    sCounters.records.add(count);
    const auto eventsV1_1 = ConvertAll(events, count, RecordConversions::convertACEToAEEV1_1);
    const auto eventsV1_0 = ConvertAll(events, count, RecordConversions::convertACEToAEEV1_0);
    Mutex::Autolock lock(mListMutex);
    Broadcast(mClientVectorV1_1, &V1_1::IEnvironmentChangedCallback::onEnvironmentChangedV1_1,
              eventsV1_1, kChangedV1_1, kCallV1_1, sCounters);
    env_extend_changed_cb_v1_0(eventsV1_0);
}

void EnvironmentInterface::env_extend_changed_cb_v1_0(
        const std::vector<ActivityEventExtend>& events) {
    Broadcast(mClientVectorV1_0, &V1_0::IEnvironmentChangedCallback::onEnvironmentChanged, events,
              kChangedV1_0, kCallV1_0, sCounters);
}

Return<void> EnvironmentInterface::getSupportedEnvironmentsList(
        getSupportedEnvironmentsList_cb answer) {
    return AnswerNames(mImpl, &environment_interface::get_supported_environments_list, answer,
                       kSupported, kGetNames);
}

Return<void> EnvironmentInterface::getCurrentEnvironment(getCurrentEnvironment_cb answer) {
    return AnswerCurrent(mImpl, &environment_interface::get_current_environment,
                         RecordConversions::convertACEToAEEV1_0, answer, kCurrentV1_0, kGetCurrent);
}

Return<void> EnvironmentInterface::getCurrentEnvironmentV1_1(getCurrentEnvironmentV1_1_cb answer) {
    return AnswerCurrent(mImpl, &environment_interface::get_current_environment,
                         RecordConversions::convertACEToAEEV1_1, answer, kCurrentV1_1, kGetCurrent);
}

CommonState EnvironmentInterface::look() {
    CommonState state;
    if (LockInTime(mListMutex)) {
        state.hasClients = true;
        CopyClients(mClientVectorV1_1, "1.1", &state);
        CopyClients(mClientVectorV1_0, "1.0", &state);
        mListMutex.unlock();
    } else {
        state.held.push_back(kListMutex);
    }
    state.hasShared = mDeathRecipient.look(&state.shared);
    if (!state.hasShared) state.held.push_back("EnvironmentInterface::mDeathRecipient");
    return state;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
