#define LOG_TAG "AR_impl"

#include <new>

#include <log/log.h>

#include "ActivityInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using ::android::Mutex;

ActivityInterface::ActivityInterface(const activity_interface* impl) : mImpl(impl) {
    ALOGI("Construct ActivityInterface");
    LOG_ALWAYS_FATAL_IF(sInterfaceExists);
    if (mImpl != nullptr) {
        mImpl->register_activity_callbacks(&sActCb);
    } else {
        ALOGE("%s: mImpl interface is not available", "ActivityInterface");
    }
    sInterfaceExists = true;
}

// Unlinks nobody and tells the module nothing: sActCb stays valid, and the requests stay.
ActivityInterface::~ActivityInterface() {
    ALOGI("Deconstruct ActivityInterface");
    sInterfaceExists = false;
    mClientVectorV1_0.clear();
    mClientVectorV1_1.clear();
}

struct ActivityInterface::Registration {
    using Owner = ActivityInterface;
    using Recipient_t = sp<RemoteListenerHidlDeathRecipient>;
    static constexpr const char* kTag = LOG_TAG;
    static constexpr unsigned long kPidWithoutCaller = 0;

    static Mutex& ListMutex() RETURN_CAPABILITY(ActivityInterface::mListMutex) {
        return mListMutex;
    }
};

// A process's first callback stays; one recipient serves all.
struct ActivityInterface::RegistrationV1_0 : Registration {
    using Callback = V1_0::IActivityChangedCallback;

    static ClientTable<Callback>& Clients() REQUIRES(ActivityInterface::mListMutex) {
        return mClientVectorV1_0;
    }
    static Recipient_t Recipient(Owner* owner) { return owner->SharedRecipient(); }
    static bool Admit(Owner*, ssize_t known, const sp<Callback>&, const Recipient_t&,
                      unsigned long) {
        return known < 0;
    }

    static void LogNoRecipient() { ALOGE("registerActivityCallback mDeathRecipient new failed"); }
    static void LogNoCaller() { ALOGE("IPCThreadState::self() V1_0 returns nullptr"); }
    static void LogAlreadyRegistered(unsigned long pid) {
        ALOGI("It's already register pid[%lu] V1_0 callback", pid);
    }
    static void LogLinkFailed(const char* why) {
        ALOGE("Transaction error in linking to V1_0 ActivityInterface death: %s", why);
    }
    static void LogLinkRefused() {
        ALOGW("Unable to link to V1_0 ActivityInterface death notifications");
    }
    static void LogLinked(unsigned long pid, int clients) {
        ALOGD("Pid[%lu] link to V1_0 ActivityInterface death notification successful, total cb[%d]",
              pid, clients);
    }
};

// A process's later callback replaces the earlier one, under a recipient of its own. The process's
// requests stay and serve the new callback.
struct ActivityInterface::RegistrationV1_1 : Registration {
    using Callback = V1_1::IActivityChangedCallback;

    static ClientTable<Callback>& Clients() REQUIRES(ActivityInterface::mListMutex) {
        return mClientVectorV1_1;
    }
    static Recipient_t Recipient(Owner* owner) {
        return new (std::nothrow) RemoteListenerHidlDeathRecipient(owner);
    }
    static bool Admit(Owner* owner, ssize_t known, const sp<Callback>& callback,
                      const Recipient_t& recipient, unsigned long pid)
            REQUIRES(ActivityInterface::mListMutex) {
        if (known >= 0) {
            if (mClientVectorV1_1.keyAt(known) == callback) return false;
            // The old callback is not unlinked: intended, its notice finds nothing to remove.
            mClientVectorV1_1.removeItemsAt(known);
            owner->ForgetRecipient(pid);
            ALOGI("It's already register pid[%lu] V1_1 callback, delete...", pid);
        }
        // Before linking, and kept even if that fails: intended.
        owner->RememberRecipient(recipient, pid);
        return true;
    }

    static void LogNoRecipient() {
        ALOGE("registerActivityCallbackV1_1 deathRecipient new failed");
    }
    static void LogNoCaller() { ALOGE("IPCThreadState::self() V1_1 returns nullptr"); }
    static void LogAlreadyRegistered(unsigned long pid) {
        ALOGI("It's already register pid[%lu] V1_1 callback", pid);
    }
    static void LogLinkFailed(const char* why) {
        ALOGE("Transaction error in linking to V1_1 ActivityInterface death: %s", why);
    }
    static void LogLinkRefused() {
        ALOGW("Unable to link to V1_1 ActivityInterface death notifications");
    }
    static void LogLinked(unsigned long pid, int clients) {
        ALOGD("Pid[%lu] link to V1_1 ActivityInterface death notification successful, total cb[%d]",
              pid, clients);
    }
};

Return<void> ActivityInterface::registerActivityCallback(
        const sp<V1_0::IActivityChangedCallback>& callback) {
    RegisterClient<RegistrationV1_0>(this, callback);
    return ::android::hardware::Void();
}

Return<void> ActivityInterface::registerActivityCallbackV1_1(
        const sp<V1_1::IActivityChangedCallback>& callback) {
    RegisterClient<RegistrationV1_1>(this, callback);
    return ::android::hardware::Void();
}

sp<ActivityInterface::RemoteListenerHidlDeathRecipient> ActivityInterface::SharedRecipient() {
    Mutex::Autolock lock(mTableLock);
    if (mDeathRecipient == nullptr) {
        mDeathRecipient = new (std::nothrow) RemoteListenerHidlDeathRecipient(this);
    }
    return mDeathRecipient;
}

void ActivityInterface::RememberRecipient(const sp<RemoteListenerHidlDeathRecipient>& recipient,
                                          unsigned long pid) {
    Mutex::Autolock lock(mTableLock);
    mDeathRecipientVectorV1_1.add(recipient, pid);
}

void ActivityInterface::ForgetRecipient(unsigned long pid) {
    Mutex::Autolock lock(mTableLock);
    for (size_t i = 0; i < mDeathRecipientVectorV1_1.size(); ++i) {
        if (mDeathRecipientVectorV1_1.valueAt(i) != pid) continue;
        mDeathRecipientVectorV1_1.removeItemsAt(i);
        return;
    }
}

void ActivityInterface::HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) {
    ALOGI("serviceDied, cookie is %lu", cookie);
    sp<RemoteListenerHidlDeathRecipient> own;
    sp<RemoteListenerHidlDeathRecipient> shared;
    {
        Mutex::Autolock lock(mTableLock);
        for (size_t i = 0; i < mDeathRecipientVectorV1_1.size() && own == nullptr; ++i) {
            if (mDeathRecipientVectorV1_1.valueAt(i) == cookie) {
                own = mDeathRecipientVectorV1_1.keyAt(i);
            }
        }
        shared = mDeathRecipient;
    }
    const sp<IBase> object = who.promote();
    if (object == nullptr) {
        ALOGE("Invalide IBase object");  // the spelling is intended: log readers match on it
    } else {
        // Which version died is not known here: both recipients are tried.
        if (own != nullptr) {
            Unlink(object, own);
        } else {
            ALOGE("DeathRecipient is nullptr");
        }
        if (shared != nullptr) Unlink(object, shared);
    }

    Mutex::Autolock lock(mListMutex);
    ssize_t dead = FindDeadClient(mClientVectorV1_1, who);
    if (dead >= 0) {
        const unsigned long pid = mClientVectorV1_1.valueAt(dead);
        {
            Mutex::Autolock events(eventMutex);
            mEventData.eraseClient(pid);
        }
        mClientVectorV1_1.removeItemsAt(dead);
        ALOGI("######V1_1 Match, remainder cb[%d]!!!######",
              static_cast<int>(mClientVectorV1_1.size()));
    }
    // One callback object may stand in both tables. The requests of a version 1.0 client outlive
    // it, and so do any client's barriers and last events: intended, the module still reports.
    dead = FindDeadClient(mClientVectorV1_0, who);
    if (dead >= 0) {
        mClientVectorV1_0.removeItemsAt(dead);
        ALOGI("######V1_0 Match, remainder cb[%d]!!!######",
              static_cast<int>(mClientVectorV1_0.size()));
    } else {
        ALOGI("finish");
    }
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
