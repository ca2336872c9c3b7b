// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "AR_impl"

#include <new>

#include <log/log.h>

#include "ActivityInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr RegistrationTexts kRegistrationV1_0 = {
        LOG_TAG,
        /*pidWithoutCaller=*/0,
        "registerActivityCallback mDeathRecipient new failed",
        "IPCThreadState::self() V1_0 returns nullptr",
        AR_FORMAT("It's already register pid[%lu] V1_0 callback", 0ul),
        AR_FORMAT("Transaction error in linking to V1_0 ActivityInterface death: %s", ""),
        "Unable to link to V1_0 ActivityInterface death notifications",
        AR_FORMAT(
                "Pid[%lu] link to V1_0 ActivityInterface death notification successful, total cb[%d]",
                0ul, 0),
};
constexpr RegistrationTexts kRegistrationV1_1 = {
        LOG_TAG,
        /*pidWithoutCaller=*/0,
        "registerActivityCallbackV1_1 deathRecipient new failed",
        "IPCThreadState::self() V1_1 returns nullptr",
        AR_FORMAT("It's already register pid[%lu] V1_1 callback", 0ul),
        AR_FORMAT("Transaction error in linking to V1_1 ActivityInterface death: %s", ""),
        "Unable to link to V1_1 ActivityInterface death notifications",
        AR_FORMAT(
                "Pid[%lu] link to V1_1 ActivityInterface death notification successful, total cb[%d]",
                0ul, 0),
        AR_FORMAT("It's already register pid[%lu] V1_1 callback, delete...", 0ul),
};
constexpr DeathTexts kDeath = {
        LOG_TAG,
        AR_FORMAT("######V1_1 Match, remainder cb[%d]!!!######", 0),
        AR_FORMAT("######V1_0 Match, remainder cb[%d]!!!######", 0),
};

}  // namespace

// A process's first callback stays; one recipient serves all.
Return<void> ActivityInterface::registerActivityCallback(
        const sp<V1_0::IActivityChangedCallback>& callback) {
    return Register(callback, mDeathRecipient, {mListMutex, mClientVectorV1_0}, kRegistrationV1_0);
}

// A process's later callback replaces the earlier one, under a recipient of its own. The process's
// requests stay and serve the new callback.
Return<void> ActivityInterface::registerActivityCallbackV1_1(
        const sp<V1_1::IActivityChangedCallback>& callback) {
    sp<RemoteListenerHidlDeathRecipient> recipient;
    if (callback != nullptr) recipient = new (std::nothrow) RemoteListenerHidlDeathRecipient(this);
    return Register(callback, recipient, {mListMutex, mClientVectorV1_1}, kRegistrationV1_1,
                    &mDeathRecipientVectorV1_1);
}

void ActivityInterface::HandleHidlDeath(uint64_t cookie, const wp<IBase>& who) {
    ALOGI("serviceDied, cookie is %lu", cookie);
    sCounters.deaths.add();
    const sp<RemoteListenerHidlDeathRecipient> own = mDeathRecipientVectorV1_1.find(cookie);
    const sp<IBase> object = who.promote();
    if (object == nullptr) {
        ALOGE("Invalide IBase object");
    } else {
        // Which version died is not known here: both recipients are tried.
        if (own != nullptr) {
            Unlink(object, own);
        } else {
            ALOGE("DeathRecipient is nullptr");
        }
        const sp<RemoteListenerHidlDeathRecipient> shared = mDeathRecipient.get();
        if (shared != nullptr) Unlink(object, shared);
    }

    Mutex::Autolock lock(mListMutex);
    // Only a version 1.1 match takes requests along. Those of a version 1.0 client stay and count
    // in merges; barriers and last events stay whichever version died.
    const ssize_t dead = FindDeadClient(mClientVectorV1_1, who);
    if (dead >= 0) {
        const unsigned long pid = mClientVectorV1_1.valueAt(dead);
        Mutex::Autolock events(eventMutex);
        mEventData.eraseClient(pid);
    }
    RemoveDeadClient(who, mClientVectorV1_1, mClientVectorV1_0, kDeath);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
