// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "AR_impl"

#include <algorithm>
#include <memory>

#include <log/log.h>

#include "ActivityInterface.h"
#include "Trace.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr BroadcastTexts kExtendV1_1 = {
        LOG_TAG,
        AR_FORMAT("actExtendChangedCb V1_1 callback is nullptr, PID[%lu]", 0ul),
        AR_FORMAT("%s: Unable to invoke onActivityExtendChangedV1_1, PID[%lu]", "", 0ul),
        "ActExtendChangedCb",
};
constexpr BroadcastTexts kExtendV1_0 = {
        LOG_TAG,
        AR_FORMAT("actExtendChangedCb V1_0 callback is nullptr, PID[%lu]", 0ul),
        AR_FORMAT("%s: Unable to invoke onActivityExtendChangedV1_0 PID[%lu]", "", 0ul),
        "ActExtendChangedCbV1_0",
};
constexpr BroadcastTexts kPlainV1_0 = {
        LOG_TAG,
        AR_FORMAT("actChangedCb V1_0 callback is nullptr, PID[%lu]", 0ul),
        AR_FORMAT("%s: Unable to invoke onActivityChangedV1_0 PID[%lu]", "", 0ul),
        "ActChangedCbV1_0",
};

constexpr char kListMutex[] = "ActivityInterface::mListMutex";
constexpr CallSite kCallPlainV1_1 = {"activity", "onActivityChangedV1_1", kListMutex};
constexpr CallSite kCallPlainV1_0 = {"activity", "onActivityChanged", kListMutex};
constexpr CallSite kCallExtendV1_1 = {"activity", "onActivityExtendChangedV1_1", kListMutex};
constexpr CallSite kCallExtendV1_0 = {"activity", "onActivityExtendChanged", kListMutex};

}  // namespace

void ActivityInterface::ActChangedCb(const activity_event* events, int32_t count) {
    const TraceSlice slice("activity_changed");
    ALOGI("ActChangedCb start count[%d]", count);
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid actChangedCb. Count: %d", "ActChangedCb", 297, count);
        sCounters.refusedBatches.add();
        return;
    }
    const int32_t pid = CallingPidOrZero();
    Mutex::Autolock lock(mListMutex);
    PackageNamePush(events, count, pid, sBatch);
    sCounters.batches.add();
    sCounters.records.add(count);
    sCounters.routed.add(sBatch.routed());
    sCounters.belowBarrier.add(sBatch.heldBack());
    ActivitiesReport(sBatch);
    sBatch.clear();
    ALOGI("ActChangedCb end, pid[%d]", pid);
}

void ActivityInterface::PackageNamePush(const activity_event* events, int32_t count, int32_t pid,
                                        RoutedBatch& batch) {
    for (int32_t i = 0; i < count; ++i) {
        const activity_event& event = events[i];
        if (event.event_type == 0) continue;
        // Taken per record, not per batch: clients' enables and disables get in between.
        Mutex::Autolock lock(eventMutex);
        const Route* route = sRoutes.find(event.activity, event.event_type, RouteChanges());
        if (route == nullptr) route = FindRoute(event, pid, batch);
        if (route->plan == nullptr) continue;
        if (event.timestamp < route->barrier) {
            batch.holdBack();
            continue;
        }
        batch.add(event, route->plan);
    }
}

const Route* ActivityInterface::FindRoute(const activity_event& event, int32_t pid,
                                          RoutedBatch& batch) {
    Route* const route = sRoutes.replace(event.activity, event.event_type);
    route->barrier = GetLastTime(ClientKey(pid), event.activity, event.event_type);
    EnableRequestTable::Pair* const pair = mEventData.find({event.activity, event.event_type});
    if (pair != nullptr) {
        if (event.timestamp < route->barrier) {  // nothing is walked for it
            batch.holdBack();
            return route;
        }
        // An event for the same requests as one before repeats what walking them did.
        const bool repeats = pair->plan != nullptr && mLastActivityEvent.defer(pair->plan->notes);
        if (!repeats) WalkRequests(*pair, event, pid);
        batch.start(pair->plan);
        route->plan = pair->plan.get();
        if (!repeats) return route;  // those that follow must ask again
    }
    route->changes = RouteChanges();
    return route;
}

void ActivityInterface::WalkRequests(EnableRequestTable::Pair& pair, const activity_event& event,
                                     int32_t pid) {
    const auto plan = std::make_shared<DeliveryPlan>();
    plan->notes = mLastActivityEvent.startWalk(pair.key);
    std::vector<EventResponseData> routed;
    for (const EnableRequestData* request : pair.requests) {
        OneDataPush(event.activity, event, pid, *request, routed);
        plan->processes.push_back(packageNames.add(request->pid));
        mLastActivityEvent.addTo(plan->notes, request->pid);
        routed.clear();  // the plan stands for all of them
    }
    std::sort(plan->processes.begin(), plan->processes.end());
    pair.plan = plan;
}

void ActivityInterface::OneDataPush(int32_t activity, const activity_event& event, int32_t pid,
                                    const EnableRequestData& request,
                                    std::vector<EventResponseData>& batch) {
    // The barrier is looked up under pid, the delivering thread's caller, not under the request's
    // client. An equal timestamp passes.
    if (event.timestamp < GetLastTime(ClientKey(pid), activity, event.event_type)) return;
    CheckRepeatedEvent(request.pid, request.activity, event.event_type, event.timestamp,
                       mLastActivityEvent);
    batch.push_back(
            {request.pid, request.activity, event.event_type, event.timestamp, {}, event.extra});
    packageNames.add(request.pid);
}

int64_t ActivityInterface::GetLastTime(uint64_t pid, uint32_t activity, uint32_t event) {
    const FirstReport* const barrier = firstReport.first({pid, {activity, event}});
    return barrier == nullptr ? 0 : barrier->timestamp;
}

bool ActivityInterface::CheckRepeatedEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                           uint64_t timestamp, LastEventTable& table) {
    table.note(pid, activity, event, static_cast<int64_t>(timestamp));
    return true;
}

void ActivityInterface::ActivitiesReport(RoutedBatch& batch) {
    mLastActivityEvent.settle();  // whoever looks at it next finds the batch in it
    // Version 1.0 doesn't route: each of its clients gets every process's share, the empty ones
    // too. Without such a client nobody would get the empty ones.
    const bool hasV1_0 = !mClientVectorV1_0.isEmpty();
    for (const uint32_t position : batch.group(packageNames.size(), /*everybody=*/hasV1_0)) {
        if (batch.hasShare(position)) ReportV1_1(position, batch);
        if (hasV1_0) ActChangedCbV1_0(batch.listsOf(position).eventsV1_0);
    }
}

void ActivityInterface::ReportV1_1(uint32_t position, RoutedBatch& batch) {
    // Of an entry without a callback nothing is said, unlike elsewhere.
    const unsigned long pid = packageNames[position];
    for (const auto& client : mClientVectorV1_1.clientsOf(pid)) {
        const sp<V1_1::IActivityChangedCallback> callback = client.callback;
        const Return<void> sent =
                CallClient(callback.get(), pid, client.calls.get(),
                           &V1_1::IActivityChangedCallback::onActivityChangedV1_1,
                           batch.listsOf(position).eventsV1_1, kCallPlainV1_1, sCounters);
        if (!sent.isOk()) {
            // Prints the process id at this position of the client table, usually another client's:
            // fixed, like the text. 0 when there is none.
            const unsigned long named =
                    position < mClientVectorV1_1.size() ? mClientVectorV1_1.valueAt(position) : 0;
            ALOGI("%s: Unable to invoke onActivityChangedV1_1 PID[%lu]", "ActivitiesReport", named);
        }
        // After every call, also one that failed.
        ALOGI("able to onActivityChangedV1_1");
    }
}

void ActivityInterface::ActChangedCbV1_0(const std::vector<ActivityEvent>& events) {
    Broadcast(mClientVectorV1_0, &V1_0::IActivityChangedCallback::onActivityChanged, events,
              kPlainV1_0, kCallPlainV1_0, sCounters);
}

// Unlike plain events, these go to everybody, whatever they enabled.
void ActivityInterface::ActExtendChangedCb(const ar_context_event* events, int32_t count) {
    const TraceSlice slice("activity_extend_changed");
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid actExtendChangedCb. Count: %d", "ActExtendChangedCb", 64, count);
        sCounters.refusedBatches.add();
        return;
    }
    sCounters.extendedBatches.add();
    sCounters.extendedRecords.add(count);
    const auto eventsV1_1 = ConvertAll(events, count, convertACEToAEEV1_1);
    const auto eventsV1_0 = ConvertAll(events, count, convertACEToAEEV1_0);
    Mutex::Autolock lock(mListMutex);
    Broadcast(mClientVectorV1_1, &V1_1::IActivityChangedCallback::onActivityExtendChangedV1_1,
              eventsV1_1, kExtendV1_1, kCallExtendV1_1, sCounters);
    ActExtendChangedCbV1_0(eventsV1_0);
}

void ActivityInterface::ActExtendChangedCbV1_0(const std::vector<ActivityEventExtend>& events) {
    Broadcast(mClientVectorV1_0, &V1_0::IActivityChangedCallback::onActivityExtendChanged, events,
              kExtendV1_0, kCallExtendV1_0, sCounters);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
