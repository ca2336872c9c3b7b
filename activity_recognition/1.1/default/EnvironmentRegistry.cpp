#define LOG_TAG "AR_impl_Env"

#include <new>

#include <log/log.h>

#include "EnvironmentInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using ::android::Mutex;

// The order is that of construction at load.
Mutex EnvironmentInterface::mListMutex;
ClientTable<V1_1::IEnvironmentChangedCallback> EnvironmentInterface::mClientVectorV1_1;
ClientTable<V1_0::IEnvironmentChangedCallback> EnvironmentInterface::mClientVectorV1_0;
bool EnvironmentInterface::sInterfaceExists = false;
const environment_callbacks EnvironmentInterface::sEnvCb = {EnvChangedCb};

EnvironmentInterface::EnvironmentInterface(const environment_interface* impl) : mImpl(impl) {
    LOG_ALWAYS_FATAL_IF(sInterfaceExists);
    sInterfaceExists = true;
    if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "EnvironmentInterface");
        return;
    }
    mImpl->register_environment_callbacks(&sEnvCb);
}

// Unlinks nobody and tells the module nothing: sEnvCb stays valid.
EnvironmentInterface::~EnvironmentInterface() {
    ALOGI("Deconstruct EnvironmentInterface");
    sInterfaceExists = false;
    mClientVectorV1_1.clear();
    mClientVectorV1_0.clear();
}

// What both versions do alike: a process's first callback stays; one recipient serves all.
struct EnvironmentInterface::Registration {
    using Owner = EnvironmentInterface;
    static constexpr const char* kTag = LOG_TAG;
    static constexpr unsigned long kPidWithoutCaller = 1;

    static Mutex& ListMutex() RETURN_CAPABILITY(EnvironmentInterface::mListMutex) {
        return mListMutex;
    }
    static sp<RemoteListenerHidlDeathRecipient> Recipient(Owner* owner) {
        return owner->SharedRecipient();
    }
    template <typename Callback>
    static bool Admit(Owner*, ssize_t known, const sp<Callback>&,
                      const sp<RemoteListenerHidlDeathRecipient>&, unsigned long) {
        return known < 0;
    }
};

struct EnvironmentInterface::RegistrationV1_0 : Registration {
    using Callback = V1_0::IEnvironmentChangedCallback;

    static ClientTable<Callback>& Clients() REQUIRES(EnvironmentInterface::mListMutex) {
        return mClientVectorV1_0;
    }

    static void LogNoRecipient() {
        ALOGE("registerEnvironmentCallback new mDeathRecipient failed");
    }
    static void LogNoCaller() { ALOGE("IPCThreadState::self() V1_0 returns nullptr"); }
    static void LogAlreadyRegistered(unsigned long pid) {
        ALOGI("It's already register pid[%lu] callback, V1_0", pid);
    }
    static void LogLinkFailed(const char* why) {
        ALOGE("Transaction error in linking to EnvironmentInterfaceV1_0 death: %s", why);
    }
    static void LogLinkRefused() {
        ALOGW("Unable to link to EnvironmentInterfaceV1_0 death notifications");
    }
    static void LogLinked(unsigned long pid, int clients) {
        ALOGD("Pid[%lu] link to EnvironmentInterfaceV1_0 death notification successful, "
              "total cb[%d]",
              pid, clients);
    }
};

struct EnvironmentInterface::RegistrationV1_1 : Registration {
    using Callback = V1_1::IEnvironmentChangedCallback;

    static ClientTable<Callback>& Clients() REQUIRES(EnvironmentInterface::mListMutex) {
        return mClientVectorV1_1;
    }

    static void LogNoRecipient() { ALOGE("registerEnvironmentCallbackV1_1 Death new failed"); }
    static void LogNoCaller() { ALOGE("IPCThreadState::self() V1_1 returns nullptr"); }
    static void LogAlreadyRegistered(unsigned long pid) {
        ALOGI("It's already register pid[%lu] callback, V1_1", pid);
    }
    static void LogLinkFailed(const char* why) {
        ALOGE("Transaction error in linking to EnvironmentInterfaceV1_1 death: %s", why);
    }
    static void LogLinkRefused() {
        ALOGW("Unable to link to EnvironmentInterfaceV1_1 death notifications");
    }
    static void LogLinked(unsigned long pid, int clients) {
        ALOGD("Pid[%lu] link to EnvironmentInterfaceV1_1 death notification successful, "
              "total cb[%d]",
              pid, clients);
    }
};

Return<void> EnvironmentInterface::registerEnvironmentCallback(
        const sp<V1_0::IEnvironmentChangedCallback>& callback) {
    RegisterClient<RegistrationV1_0>(this, callback);
    return ::android::hardware::Void();
}

Return<void> EnvironmentInterface::registerEnvironmentCallbackV1_1(
        const sp<V1_1::IEnvironmentChangedCallback>& callback) {
    RegisterClient<RegistrationV1_1>(this, callback);
    return ::android::hardware::Void();
}

sp<EnvironmentInterface::RemoteListenerHidlDeathRecipient> EnvironmentInterface::SharedRecipient() {
    Mutex::Autolock lock(mRecipientLock);
    if (mDeathRecipient == nullptr) {
        mDeathRecipient = new (std::nothrow) RemoteListenerHidlDeathRecipient(this);
    }
    return mDeathRecipient;
}

void EnvironmentInterface::HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) {
    ALOGI("ENV serviceDied, cookie is %lu", cookie);
    sp<RemoteListenerHidlDeathRecipient> shared;
    {
        Mutex::Autolock lock(mRecipientLock);
        shared = mDeathRecipient;
    }
    const sp<IBase> object = who.promote();
    if (object == nullptr) {
        ALOGE("Invalide IBase object, ENV");  // the spelling is intended, as on the activity side
    } else {
        Unlink(object, shared);
    }

    Mutex::Autolock lock(mListMutex);
    ssize_t dead = FindDeadClient(mClientVectorV1_1, who);
    if (dead >= 0) {
        mClientVectorV1_1.removeItemsAt(dead);
        ALOGI("######V1_1 ENV Match, remainder cb[%d]!!!######",
              static_cast<int>(mClientVectorV1_1.size()));
    }
    // One callback object may stand in both tables. "finish" says that it didn't stand in this
    // one, whatever the other: intended, as on the activity side.
    dead = FindDeadClient(mClientVectorV1_0, who);
    if (dead >= 0) {
        mClientVectorV1_0.removeItemsAt(dead);
        ALOGI("######V1_0 ENV Match, remainder cb[%d]!!!######",
              static_cast<int>(mClientVectorV1_0.size()));
    } else {
        ALOGI("finish");
    }
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
