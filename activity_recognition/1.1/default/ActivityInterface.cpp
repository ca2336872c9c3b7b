// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "AR_impl"

#include "ActivityInterface.h"

#include <log/log.h>

#include "LockInTime.h"
#include "NativeQueries.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr QueryTexts kSupported = {
        LOG_TAG,
        AR_FORMAT("%s: mImpl interface is not available", ""),
        AR_FORMAT("%s: can not get support activity, list_size(%d)", "", 0),
        "getSupportedActivitiesList",
        "getSupportedActivitiesList hidl string new failed",
};
constexpr QueryTexts kCurrentV1_0 = {
        LOG_TAG,
        AR_FORMAT("%s: mImpl V1_0 interface is not available", ""),
        AR_FORMAT("%s: mImpl V1_0 getCurrentActivity error size(%d)", "", 0),
        "getCurrentActivity",
};
constexpr QueryTexts kCurrentV1_1 = {
        LOG_TAG,
        AR_FORMAT("%s: mImpl V1_1 interface is not available", ""),
        AR_FORMAT("%s: mImpl V1_1 getCurrentActivity error size(%d)", "", 0),
        "getCurrentActivityV1_1",
};

constexpr CallSite kRegister = {"activity", "register_activity_callbacks", nullptr};
constexpr CallSite kGetNames = {"activity", "get_supported_activities_list", nullptr};
constexpr CallSite kGetCurrent = {"activity", "get_current_activity", nullptr};

}  // namespace

Mutex ActivityInterface::mListMutex;
Mutex ActivityInterface::eventMutex;
ClientTable<V1_1::IActivityChangedCallback> ActivityInterface::mClientVectorV1_1;
ClientTable<V1_0::IActivityChangedCallback> ActivityInterface::mClientVectorV1_0;
LastEventTable ActivityInterface::mLastActivityEvent;
EnableRequestTable ActivityInterface::mEventData;
FirstReportTable ActivityInterface::firstReport;
RouteMemory ActivityInterface::sRoutes;
ReportList ActivityInterface::packageNames;
RoutedBatch ActivityInterface::sBatch;
bool ActivityInterface::sInterfaceExists = false;
const activity_callbacks ActivityInterface::sActCb = {ActChangedCb, ActExtendChangedCb};
ActivityCounters ActivityInterface::sCounters;
AttemptHistory ActivityInterface::sHistory;

ActivityInterface::ActivityInterface(const activity_interface* impl)
    : mDeathRecipient(this), mImpl(impl) {
    ALOGI("Construct ActivityInterface");
    LOG_ALWAYS_FATAL_IF(sInterfaceExists);
    if (mImpl != nullptr) {
        CallModule(kRegister, ClientKey(CallingPidOrZero()), mImpl,
                   &activity_interface::register_activity_callbacks, &sActCb);
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

Return<void> ActivityInterface::getSupportedActivitiesList(getSupportedActivitiesList_cb answer) {
    return AnswerNames(mImpl, &activity_interface::get_supported_activities_list, answer,
                       kSupported, kGetNames);
}

Return<void> ActivityInterface::getCurrentActivity(getCurrentActivity_cb answer) {
    return AnswerCurrent(mImpl, &activity_interface::get_current_activity, convertACEToAEEV1_0,
                         answer, kCurrentV1_0, kGetCurrent);
}

Return<void> ActivityInterface::getCurrentActivityV1_1(getCurrentActivityV1_1_cb answer) {
    return AnswerCurrent(mImpl, &activity_interface::get_current_activity, convertACEToAEEV1_1,
                         answer, kCurrentV1_1, kGetCurrent);
}

ActivityState ActivityInterface::look() {
    ActivityState state;
    if (LockInTime(mListMutex)) {
        state.hasClients = true;
        CopyClients(mClientVectorV1_1, "1.1", &state);
        CopyClients(mClientVectorV1_0, "1.0", &state);
        state.reportList = packageNames.size();
        mListMutex.unlock();
    } else {
        state.held.push_back("ActivityInterface::mListMutex");
    }
    if (LockInTime(eventMutex)) {
        state.hasRequests = true;
        for (const auto& standing : mEventData) {
            state.requests.push_back({standing, standing.askedNs});
        }
        state.barriers.assign(firstReport.begin(), firstReport.end());
        eventMutex.unlock();
    } else {
        state.held.push_back("ActivityInterface::eventMutex");
    }
    if (LockInTime(mNativeLock)) {
        state.hasNative = true;
        state.recorded.assign(mEnableToNativeData.begin(), mEnableToNativeData.end());
        state.told = mTold.copy();
        mNativeLock.unlock();
    } else {
        state.held.push_back("ActivityInterface::mNativeLock");
    }
    state.hasLastEvents = mLastActivityEvent.look(&state.lastEvents);
    if (!state.hasLastEvents) state.held.push_back("ActivityInterface::mLastActivityEvent");
    state.hasShared = mDeathRecipient.look(&state.shared);
    if (!state.hasShared) state.held.push_back("ActivityInterface::mDeathRecipient");
    state.hasOwn = mDeathRecipientVectorV1_1.look(&state.own);
    if (!state.hasOwn) state.held.push_back("ActivityInterface::mDeathRecipientVectorV1_1");
    state.history = sHistory.copy();
    return state;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
