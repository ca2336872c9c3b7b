#define LOG_TAG "AR_impl"

#include <map>

#include <log/log.h>

#include "ActivityInterface.h"
#include "Queries.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using ::android::Mutex;
using ::android::hardware::hidl_vec;

namespace {

// The numbers after the names in the two refusals are fixed: intended, whoever reads these logs
// matches on the whole text.
constexpr int kActChangedMark = 297;
constexpr int kActExtendChangedMark = 64;

activity_event AsNative(const ZqActivityRecognitionExtEvent& event) {
    return {event.event, event.activity, event.timestamp, event.extra, {}};
}

// The texts' differences, a comma here and none there, are intended: log readers match on them.
struct ExtendV1_1 {
    static Return<void> Send(const sp<V1_1::IActivityChangedCallback>& callback,
                             const hidl_vec<ActivityEventExtendV1_1>& events) {
        return callback->onActivityExtendChangedV1_1(events);
    }
    static void LogNullCallback(unsigned long pid) {
        ALOGE("actExtendChangedCb V1_1 callback is nullptr, PID[%lu]", pid);
    }
    static void LogFailed(unsigned long pid) {
        ALOGE("%s: Unable to invoke onActivityExtendChangedV1_1, PID[%lu]", "ActExtendChangedCb",
              pid);
    }
};

struct ExtendV1_0 {
    static Return<void> Send(const sp<V1_0::IActivityChangedCallback>& callback,
                             const hidl_vec<ActivityEventExtend>& events) {
        return callback->onActivityExtendChanged(events);
    }
    static void LogNullCallback(unsigned long pid) {
        ALOGE("actExtendChangedCb V1_0 callback is nullptr, PID[%lu]", pid);
    }
    static void LogFailed(unsigned long pid) {
        ALOGE("%s: Unable to invoke onActivityExtendChangedV1_0 PID[%lu]", "ActExtendChangedCbV1_0",
              pid);
    }
};

struct PlainV1_0 {
    static Return<void> Send(const sp<V1_0::IActivityChangedCallback>& callback,
                             const hidl_vec<ActivityEvent>& events) {
        return callback->onActivityChanged(events);
    }
    static void LogNullCallback(unsigned long pid) {
        ALOGE("actChangedCb V1_0 callback is nullptr, PID[%lu]", pid);
    }
    static void LogFailed(unsigned long pid) {
        ALOGE("%s: Unable to invoke onActivityChangedV1_0 PID[%lu]", "ActChangedCbV1_0", pid);
    }
};

}  // namespace

void ActivityInterface::ActChangedCb(const activity_event* events, int32_t count) {
    ALOGI("ActChangedCb start count[%d]", count);
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid actChangedCb. Count: %d", "ActChangedCb", kActChangedMark, count);
        return;
    }
    const int32_t pid = CallingPidOrZero();
    std::vector<EventResponseData> batch;
    Mutex::Autolock lock(mListMutex);
    PackageNamePush(events, count, pid, batch);
    ActivitiesReport(batch);
    ALOGI("ActChangedCb end, pid[%d]", pid);
}

// Unlike plain events, these go to everybody, whatever they enabled.
void ActivityInterface::ActExtendChangedCb(const ar_context_event* events, int32_t count) {
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid actExtendChangedCb. Count: %d", "ActExtendChangedCb",
              kActExtendChangedMark, count);
        return;
    }
    const auto eventsV1_1 = ConvertAll(events, count, convertACEToAEEV1_1);
    const auto eventsV1_0 = ConvertAll(events, count, convertACEToAEEV1_0);
    Mutex::Autolock lock(mListMutex);
    Broadcast<ExtendV1_1>(mClientVectorV1_1, eventsV1_1);
    ActExtendChangedCbV1_0(eventsV1_0);
}

void ActivityInterface::ActExtendChangedCbV1_0(const std::vector<ActivityEventExtend>& events) {
    Broadcast<ExtendV1_0>(mClientVectorV1_0, events);
}

void ActivityInterface::ActChangedCbV1_0(const std::vector<ActivityEvent>& events) {
    Broadcast<PlainV1_0>(mClientVectorV1_0, events);
}

void ActivityInterface::PackageNamePush(const activity_event* events, int32_t count, int32_t pid,
                                        std::vector<EventResponseData>& batch) {
    for (int32_t i = 0; i < count; ++i) {
        const activity_event& event = events[i];
        if (event.event_type == 0) continue;
        // Taken per record, not per batch: clients' enables and disables get in between.
        Mutex::Autolock lock(eventMutex);
        // The barrier is that of the delivering thread's process, not of each request's: intended.
        // So it is the same for all requests of the pair. An equal timestamp passes.
        if (event.timestamp < GetLastTime(ClientKey(pid), event.activity, event.event_type)) {
            continue;
        }
        Mutex::Autolock last(sLastEventLock);
        for (uint32_t at : mEventData.positionsOf({0, event.activity, event.event_type})) {
            OneDataPush(event, mEventData[at], batch);
        }
    }
}

void ActivityInterface::OneDataPush(const activity_event& event, const EnableRequestData& request,
                                    std::vector<EventResponseData>& batch) {
    CheckRepeatedEvent(request.pid, request.activity, event.event_type, event.timestamp,
                       mLastActivityEvent);
    batch.push_back(
            {request.pid, request.activity, event.event_type, event.timestamp, {}, event.extra});
    if (packageNames.firstOf({request.pid, 0, 0}) < 0) packageNames.push_back(request.pid);
}

void ActivityInterface::ActivitiesReport(const std::vector<EventResponseData>& batch) {
    if (packageNames.empty()) return;
    // Each process's share of the batch, by the process's position in packageNames.
    std::map<size_t, std::vector<const EventResponseData*>> shares;
    for (const EventResponseData& routed : batch) {
        const ssize_t position = packageNames.firstOf({routed.pid, 0, 0});
        if (position >= 0) shares[position].push_back(&routed);
    }
    // Every version 1.0 client gets every process's share, also the empty ones: intended, that
    // version doesn't route. Without such a client nobody would get the empty ones.
    const bool hasV1_0 = !mClientVectorV1_0.isEmpty();
    for (size_t i = 0; hasV1_0 && i < packageNames.size(); ++i) shares[i];

    const ClientPositions clients = PositionsByPid(mClientVectorV1_1);
    for (const auto& share : shares) {
        std::vector<ActivityEventV1_1> eventsV1_1(share.second.size());
        std::vector<ActivityEvent> eventsV1_0(hasV1_0 ? share.second.size() : 0);
        for (size_t i = 0; i < share.second.size(); ++i) {
            const activity_event event = AsNative(ToExtEvent(*share.second[i]));
            AssignWhole(convertAEToAEV1_1(event), &eventsV1_1[i]);
            if (hasV1_0) AssignWhole(convertAEToAEV1_0(event), &eventsV1_0[i]);
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
        if (callback == nullptr) continue;  // no log line, unlike version 1.0: intended
        const Return<void> sent = callback->onActivityChangedV1_1(CopyForClient(events));
        if (!sent.isOk()) {
            // Names the client that stands at the process's position, whoever that is: intended,
            // log readers know it so. 0 when no client stands there.
            const unsigned long named =
                    position < mClientVectorV1_1.size() ? mClientVectorV1_1.valueAt(position) : 0;
            ALOGI("%s: Unable to invoke onActivityChangedV1_1 PID[%lu]", "ActivitiesReport", named);
        }
        // Also after a failure: intended.
        ALOGI("able to onActivityChangedV1_1");
    }
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
