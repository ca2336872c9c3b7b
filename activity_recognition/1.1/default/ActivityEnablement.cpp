// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "AR_impl"

#include <log/log.h>

#include "ActivityInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

Return<int32_t> ActivityInterface::enableActivityEvent(uint32_t activity, uint32_t event,
                                                       int64_t reportLatencyNs) {
    ALOGI("enableActivityEvent activity[%d], event[%d] reportLatency[%ld]ns", activity, event,
          reportLatencyNs);
    if (!ValidEventType(event)) return kFailure;
    const int32_t pid = CallingPidOrZero();
    const int64_t latencyNs = RoundNumbers(reportLatencyNs);
    const EnableRequestData request = {ClientKey(pid), activity, event, latencyNs, {}};
    AddRequest(request);

    bool joins;
    {
        Mutex::Autolock lock(mNativeLock);
        joins = !FindEnableToNativeDataExist(activity, event, mEnableToNativeData);
    }
    bool accepted = false;
    if (!joins) {
        accepted = UpdateEnableNative({request.pid, activity, event, latencyNs, /*noWake=*/0});
    } else if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "enableActivityEvent");
    } else {
        const int64_t merged = MergedLatency(activity, event);
        accepted = mImpl->enable_activity_event(activity, event, merged) == 0;
    }
    if (!accepted) TakeBack(request);
    if (accepted && joins) HandleFirstReport(request.pid, activity, event);
    ALOGI("enableActivityEvent end, pid[%d]", pid);
    return accepted ? kSuccess : kFailure;
}

Return<int32_t> ActivityInterface::enableActivityEventExtend(uint32_t activity, uint32_t event,
                                                             int64_t reportLatencyNs,
                                                             const OtherParams& params) {
    ALOGI("enableActivityEventExtend activity[%d], event[%d] report_latency[%ld]ns", activity,
          event, reportLatencyNs);
    const int32_t pid = CallingPidOrZero();
    if (ValidActivityEventExtend(event, pid, params) != 0) return kFailure;
    const bool noWake = IsNoWake(params);
    const int64_t latencyNs = noWake ? NO_WAKE_REPORT_LATENCY_NS : RoundNumbers(reportLatencyNs);
    const EnableRequestData request = {ClientKey(pid), activity, event, latencyNs,
                                       ToNativeParams(params)};
    AddRequest(request);

    bool joins;
    {
        // A record of process id 0 counts as none: UpdateEnableNativeExend adds a second.
        Mutex::Autolock lock(mNativeLock);
        joins = FindEnableToNativeData(activity, event, mEnableToNativeData).pid != 0;
    }
    // The module gets the caller's own parameters, also for a pair that others share.
    bool accepted;
    if (!joins) {
        accepted =
                UpdateEnableNativeExend({request.pid, activity, event, latencyNs, noWake}, params);
    } else {
        accepted =
                EnableActivityEvent(activity, event, MergedLatency(activity, event), params) == 0;
    }
    if (!accepted) TakeBack(request);
    if (accepted && joins) HandleFirstReport(request.pid, activity, event);
    ALOGI("enableActivityEventExtend end, pid[%d]", pid);
    return accepted ? kSuccess : kFailure;
}

// A client's new request replaces its old one and becomes the last.
void ActivityInterface::AddRequest(const EnableRequestData& request) {
    Mutex::Autolock lock(eventMutex);
    RemoveActivityEvent(request.pid, request.activity, request.event, mEventData);
    mEventData.push_back(request);
}

int64_t ActivityInterface::MergedLatency(uint32_t activity, uint32_t event) {
    Mutex::Autolock lock(eventMutex);
    return MinReportLatencyNsFunc(activity, event, mEventData);
}

// After a refusal. The request that this one replaced is gone already: a client whose re-enable
// fails has no request for the pair.
void ActivityInterface::TakeBack(const EnableRequestData& request) {
    Mutex::Autolock lock(eventMutex);
    RemoveActivityEvent(request.pid, request.activity, request.event, mEventData);
}

int32_t ActivityInterface::EnableActivityEvent(uint32_t activity, uint32_t event,
                                               int64_t reportLatencyNs, const OtherParams& params) {
    if (mImpl == nullptr || !NameFits(params)) {
        // The same words for a name that is too long.
        ALOGI("%s: mImpl interface is not available", "EnableActivityEvent");
        return kFailure;
    }
    const other_params native = ToNativeParams(params);
    return mImpl->enable_activity_event_extend(activity, event, reportLatencyNs, &native);
}

bool ActivityInterface::UpdateEnableNative(const EnableToNativeData& record) {
    if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "UpdateEnableNative");
        return false;
    }
    if (mImpl->enable_activity_event(record.activity, record.event, record.reportLatencyNs) != 0) {
        return false;
    }
    Mutex::Autolock lock(mNativeLock);
    mEnableToNativeData.push_back(record);
    return true;
}

bool ActivityInterface::UpdateEnableNativeExend(const EnableToNativeData& record,
                                                const OtherParams& params) {
    if (EnableActivityEvent(record.activity, record.event, record.reportLatencyNs, params) != 0) {
        return false;
    }
    Mutex::Autolock lock(mNativeLock);
    mEnableToNativeData.push_back(record);
    return true;
}

void ActivityInterface::HandleFirstReport(uint64_t pid, uint32_t activity, uint32_t event) {
    ar_context_event* current = nullptr;
    const int count = mImpl->get_current_activity(&current);
    // A module that counts records but hands over none is taken as one that has none.
    if (count == 0 || (count > 0 && current == nullptr)) return;
    // The last record in the module's order, not the newest time.
    const int64_t barrier = count > 0 ? current[count - 1].timestamp : 0;
    Mutex::Autolock lock(eventMutex);
    RemoveFirst(pid, activity, event);
    firstReport.push_back({pid, activity, event, barrier});
}

Return<int32_t> ActivityInterface::disableActivityEvent(uint32_t activity, uint32_t event) {
    ALOGI("disableActivityEvent acivity[%d] event[%d]", activity, event);
    if (!ValidEventType(event)) return kFailure;
    const uint64_t pid = ClientKey(CallingPidOrZero());
    {
        Mutex::Autolock lock(eventMutex);
        if (!mEventData.erase(pid, activity, event)) return kFailure;
        RemoveFirst(pid, activity, event);
        mLastActivityEvent.announceErase(activity);
    }
    RemoveLastActivityEvent(pid, activity, event, mLastActivityEvent);
    return DisableOtherActivityEvent(activity, event) == 0 ? kSuccess : kFailure;
}

int32_t ActivityInterface::DisableOtherActivityEvent(uint32_t activity, uint32_t event) {
    EnableRequestTable::Merge merge;
    {
        Mutex::Autolock lock(eventMutex);
        merge = mEventData.merge(activity, event);
    }
    if (!merge.remains) {
        {
            Mutex::Autolock lock(mNativeLock);
            RemoveEnableToNativeData(activity, event, mEnableToNativeData);
        }
        // Success also when there is no module to tell: no request is left.
        return mImpl == nullptr ? kSuccess : mImpl->disable_activity_event(activity, event);
    }
    {
        Mutex::Autolock lock(mNativeLock);
        // Nothing is recorded as enabled, so the module isn't told. It may have the pair all the
        // same: RemoveEnableToNativeData can take another pair's record.
        if (mEnableToNativeData.empty()) return -1;
    }
    if (mImpl == nullptr) return kFailure;
    // A request whose first parameter is 0.0 makes the re-enable a plain one. Of the others'
    // parameters only a no-wake request's are passed on, the last one's.
    return merge.allExtended ? mImpl->enable_activity_event_extend(activity, event, merge.latencyNs,
                                                                   &merge.noWakeParams)
                             : mImpl->enable_activity_event(activity, event, merge.latencyNs);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
