#define LOG_TAG "AR_impl"

#include <algorithm>
#include <map>
#include <utility>

#include <log/log.h>

#include "ActivityInterface.h"

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

}  // namespace

void ActivityInterface::ActChangedCb(const activity_event* events, int32_t count) {
    ALOGI("ActChangedCb start count[%d]", count);
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid actChangedCb. Count: %d", "ActChangedCb", 297, count);
        return;
    }
    const int32_t pid = CallingPidOrZero();
    std::vector<EventResponseData> batch;
    Mutex::Autolock lock(mListMutex);
    PackageNamePush(events, count, pid, batch);
    ActivitiesReport(batch);
    ALOGI("ActChangedCb end, pid[%d]", pid);
}

void ActivityInterface::PackageNamePush(const activity_event* events, int32_t count, int32_t pid,
                                        std::vector<EventResponseData>& batch) {
    for (int32_t i = 0; i < count; ++i) {
        const activity_event& event = events[i];
        if (event.event_type == 0) continue;
        // Taken per record, not per batch: clients' enables and disables get in between.
        Mutex::Autolock lock(eventMutex);
        Mutex::Autolock last(sLastEventLock);
        for (uint32_t at : mEventData.positionsOf({event.activity, event.event_type})) {
            OneDataPush(event.activity, event, pid, mEventData[at], batch);
        }
    }
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
    if (packageNames.firstOf(request.pid) < 0) packageNames.push_back(request.pid);
}

int64_t ActivityInterface::GetLastTime(uint64_t pid, uint32_t activity, uint32_t event) {
    const ssize_t index = firstReport.firstOf({pid, {activity, event}});
    return index < 0 ? 0 : firstReport[index].timestamp;
}

bool ActivityInterface::CheckRepeatedEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                           uint64_t timestamp, LastEventTable& table) {
    const ssize_t index = table.firstOf({pid, activity});
    if (index >= 0) {
        table[index].event = event;
    } else {
        table.push_back({pid, activity, event, static_cast<int64_t>(timestamp), {}, 0});
    }
    return true;
}

void ActivityInterface::ActivitiesReport(const std::vector<EventResponseData>& batch) {
    if (packageNames.empty()) return;
    // Each process's share of the batch, by the process's position in packageNames.
    std::map<size_t, std::vector<const EventResponseData*>> shares;
    for (const EventResponseData& routed : batch) {
        const uint64_t pid = routed.pid;  // the record is packed: no reference to its fields
        const ssize_t position = packageNames.firstOf(pid);
        if (position >= 0) shares[position].push_back(&routed);
    }
    // Version 1.0 doesn't route: each of its clients gets every process's share, the empty ones
    // too. Without such a client nobody would get the empty ones.
    const bool hasV1_0 = !mClientVectorV1_0.isEmpty();
    if (hasV1_0) {
        for (size_t i = 0; i < packageNames.size(); ++i) shares[i];  // makes the empty ones
    }

    const ClientPositions clients = PositionsByPid(mClientVectorV1_1);
    for (const auto& share : shares) {
        std::vector<ActivityEventV1_1> eventsV1_1(share.second.size());
        std::vector<ActivityEvent> eventsV1_0(hasV1_0 ? share.second.size() : 0);
        for (size_t i = 0; i < share.second.size(); ++i) {
            const ZqActivityRecognitionExtEvent event = ToExtEvent(*share.second[i]);
            AssignWhole(ToEventV1_1(event), &eventsV1_1[i]);
            if (hasV1_0) AssignWhole(ToEventV1_0(event), &eventsV1_0[i]);
        }
        if (!eventsV1_1.empty()) ReportV1_1(share.first, clients, eventsV1_1);
        if (hasV1_0) ActChangedCbV1_0(eventsV1_0);
    }
}

void ActivityInterface::ReportV1_1(size_t position, const ClientPositions& clients,
                                   const std::vector<ActivityEventV1_1>& events) {
    const unsigned long pid = packageNames[position];
    auto client = std::lower_bound(clients.begin(), clients.end(), std::make_pair(pid, size_t(0)));
    for (; client != clients.end() && client->first == pid; ++client) {
        const sp<V1_1::IActivityChangedCallback> callback = mClientVectorV1_1.keyAt(client->second);
        if (callback == nullptr) continue;  // without a log line, unlike elsewhere
        const Return<void> sent = callback->onActivityChangedV1_1(CopyForClient(events));
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
              kPlainV1_0);
}

// Unlike plain events, these go to everybody, whatever they enabled.
void ActivityInterface::ActExtendChangedCb(const ar_context_event* events, int32_t count) {
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid actExtendChangedCb. Count: %d", "ActExtendChangedCb", 64, count);
        return;
    }
    const auto eventsV1_1 = ConvertAll(events, count, convertACEToAEEV1_1);
    const auto eventsV1_0 = ConvertAll(events, count, convertACEToAEEV1_0);
    Mutex::Autolock lock(mListMutex);
    Broadcast(mClientVectorV1_1, &V1_1::IActivityChangedCallback::onActivityExtendChangedV1_1,
              eventsV1_1, kExtendV1_1);
    ActExtendChangedCbV1_0(eventsV1_0);
}

void ActivityInterface::ActExtendChangedCbV1_0(const std::vector<ActivityEventExtend>& events) {
    Broadcast(mClientVectorV1_0, &V1_0::IActivityChangedCallback::onActivityExtendChanged, events,
              kExtendV1_0);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
