// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "AR_impl"

#include <log/log.h>

#include "ActivityInterface.h"
#include "Trace.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr CallSite kEnable = {"activity", "enable_activity_event", nullptr};
constexpr CallSite kEnableExtend = {"activity", "enable_activity_event_extend", nullptr};
constexpr CallSite kDisable = {"activity", "disable_activity_event", nullptr};
constexpr CallSite kFlush = {"activity", "flush", nullptr};
constexpr CallSite kGetCurrent = {"activity", "get_current_activity", nullptr};

}  // namespace

// Of two clients' calls for a pair at the same time the table has the one whose answer came last.
// The trace may have the other one when the answers meet: no lock is held for it.
void ActivityInterface::NoteAnswer(const Attempt& attempt, bool disables) {
    if (attempt.answer == 0) {
        TraceLatency(attempt.activity, attempt.event, disables ? kTraceNotEnabled : attempt.toldNs);
    } else {
        sCounters.nativeRefusals.add();
    }
    if (disables) {
        Mutex::Autolock events(eventMutex);
        const bool asked = mEventData.find({attempt.activity, attempt.event}) != nullptr;
        Mutex::Autolock lock(mNativeLock);
        mTold.note(attempt, disables, asked);
    } else {
        Mutex::Autolock lock(mNativeLock);
        mTold.note(attempt, disables, /*asked=*/true);
    }
}

int32_t ActivityInterface::TellEnable(int64_t latencyNs, Attempt* attempt) {
    attempt->tell(kEnable, latencyNs, mImpl, &activity_interface::enable_activity_event,
                  attempt->activity, attempt->event, latencyNs);
    NoteAnswer(*attempt, /*disables=*/false);
    return attempt->answer;
}

int32_t ActivityInterface::TellEnableExtend(int64_t latencyNs, const other_params& params,
                                            Attempt* attempt) {
    attempt->tell(kEnableExtend, latencyNs, mImpl,
                  &activity_interface::enable_activity_event_extend, attempt->activity,
                  attempt->event, latencyNs, &params);
    NoteAnswer(*attempt, /*disables=*/false);
    return attempt->answer;
}

int32_t ActivityInterface::TellDisable(Attempt* attempt) {
    attempt->tell(kDisable, 0, mImpl, &activity_interface::disable_activity_event,
                  attempt->activity, attempt->event);
    NoteAnswer(*attempt, /*disables=*/true);
    return attempt->answer;
}

Return<int32_t> ActivityInterface::enableActivityEvent(uint32_t activity, uint32_t event,
                                                       int64_t reportLatencyNs) {
    ALOGI("enableActivityEvent activity[%d], event[%d] reportLatency[%ld]ns", activity, event,
          reportLatencyNs);
    const int32_t pid = CallingPidOrZero();
    NotedAttempt attempt(sHistory, {NowNs(), ClientKey(pid), "enableActivityEvent", activity, event,
                                    reportLatencyNs});
    if (!ValidEventType(event)) return attempt.end(kFailure);
    const int64_t latencyNs = RoundNumbers(reportLatencyNs);
    const EnableRequestData request = {ClientKey(pid), activity, event, latencyNs, {}};
    AddRequest(request, reportLatencyNs);

    bool joins;
    {
        Mutex::Autolock lock(mNativeLock);
        joins = !FindEnableToNativeDataExist(activity, event, mEnableToNativeData);
    }
    bool accepted = false;
    if (!joins) {
        accepted = UpdateEnableNative({request.pid, activity, event, latencyNs, /*noWake=*/0},
                                      &attempt);
    } else if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "enableActivityEvent");
    } else {
        const int64_t merged = MergedLatency(activity, event);
        accepted = TellEnable(merged, &attempt) == 0;
    }
    if (!accepted) TakeBack(request);
    if (accepted && joins) HandleFirstReport(request.pid, activity, event);
    ALOGI("enableActivityEvent end, pid[%d]", pid);
    return attempt.end(accepted ? kSuccess : kFailure);
}

Return<int32_t> ActivityInterface::enableActivityEventExtend(uint32_t activity, uint32_t event,
                                                             int64_t reportLatencyNs,
                                                             const OtherParams& params) {
    ALOGI("enableActivityEventExtend activity[%d], event[%d] report_latency[%ld]ns", activity,
          event, reportLatencyNs);
    const int32_t pid = CallingPidOrZero();
    NotedAttempt attempt(sHistory, {NowNs(), ClientKey(pid), "enableActivityEventExtend", activity,
                                    event, reportLatencyNs});
    if (ValidActivityEventExtend(event, pid, params) != 0) return attempt.end(kFailure);
    const bool noWake = IsNoWake(params);
    const int64_t latencyNs = noWake ? NO_WAKE_REPORT_LATENCY_NS : RoundNumbers(reportLatencyNs);
    const EnableRequestData request = {ClientKey(pid), activity, event, latencyNs,
                                       ToNativeParams(params)};
    AddRequest(request, reportLatencyNs);

    bool joins;
    {
        // A record of process id 0 counts as none: UpdateEnableNativeExend adds a second.
        Mutex::Autolock lock(mNativeLock);
        joins = FindEnableToNativeData(activity, event, mEnableToNativeData).pid != 0;
    }
    // The module gets the caller's own parameters, also for a pair that others share.
    bool accepted;
    if (!joins) {
        accepted = UpdateEnableNativeExend({request.pid, activity, event, latencyNs, noWake},
                                           params, &attempt);
    } else {
        accepted = EnableActivityEvent(MergedLatency(activity, event), params, &attempt) == 0;
    }
    if (!accepted) TakeBack(request);
    if (accepted && joins) HandleFirstReport(request.pid, activity, event);
    ALOGI("enableActivityEventExtend end, pid[%d]", pid);
    return attempt.end(accepted ? kSuccess : kFailure);
}

// A client's new request replaces its old one and becomes the last.
void ActivityInterface::AddRequest(const EnableRequestData& request, int64_t askedNs) {
    Mutex::Autolock lock(eventMutex);
    RemoveActivityEvent(request.pid, request.activity, request.event, mEventData);
    mEventData.push_back(request, askedNs);
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

int32_t ActivityInterface::EnableActivityEvent(int64_t reportLatencyNs, const OtherParams& params,
                                               Attempt* attempt) {
    if (mImpl == nullptr || !NameFits(params)) {
        // The same words for a name that is too long.
        ALOGI("%s: mImpl interface is not available", "EnableActivityEvent");
        return kFailure;
    }
    return TellEnableExtend(reportLatencyNs, ToNativeParams(params), attempt);
}

bool ActivityInterface::UpdateEnableNative(const EnableToNativeData& record, Attempt* attempt) {
    if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "UpdateEnableNative");
        return false;
    }
    if (TellEnable(record.reportLatencyNs, attempt) != 0) return false;
    Mutex::Autolock lock(mNativeLock);
    mEnableToNativeData.push_back(record);
    return true;
}

bool ActivityInterface::UpdateEnableNativeExend(const EnableToNativeData& record,
                                                const OtherParams& params, Attempt* attempt) {
    if (EnableActivityEvent(record.reportLatencyNs, params, attempt) != 0) return false;
    Mutex::Autolock lock(mNativeLock);
    mEnableToNativeData.push_back(record);
    return true;
}

void ActivityInterface::HandleFirstReport(uint64_t pid, uint32_t activity, uint32_t event) {
    ar_context_event* current = nullptr;
    const int count = CallModule(kGetCurrent, pid, mImpl, &activity_interface::get_current_activity,
                                 &current);
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
    const uint64_t pid = ClientKey(CallingPidOrZero());
    NotedAttempt attempt(sHistory, {NowNs(), pid, "disableActivityEvent", activity, event, 0});
    if (!ValidEventType(event)) return attempt.end(kFailure);
    {
        Mutex::Autolock lock(eventMutex);
        if (!mEventData.erase(pid, activity, event)) return attempt.end(kFailure);
        RemoveFirst(pid, activity, event);
        mLastActivityEvent.announceErase(activity);
    }
    RemoveLastActivityEvent(pid, activity, event, mLastActivityEvent);
    const bool accepted = DisableOtherActivityEvent(activity, event, &attempt) == 0;
    return attempt.end(accepted ? kSuccess : kFailure);
}

int32_t ActivityInterface::DisableOtherActivityEvent(uint32_t activity, uint32_t event,
                                                     Attempt* attempt) {
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
        return mImpl == nullptr ? kSuccess : TellDisable(attempt);
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
    return merge.allExtended ? TellEnableExtend(merge.latencyNs, merge.noWakeParams, attempt)
                             : TellEnable(merge.latencyNs, attempt);
}

Return<int32_t> ActivityInterface::flush() {
    NotedAttempt attempt(sHistory, {NowNs(), ClientKey(CallingPidOrZero()), "flush", 0, 0, 0});
    if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "flush");
        return attempt.end(kFailure);
    }
    attempt.tell(kFlush, 0, mImpl, &activity_interface::flush);
    if (attempt.answer != 0) sCounters.nativeRefusals.add();
    return attempt.end(attempt.answer == 0 ? kSuccess : kFailure);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
