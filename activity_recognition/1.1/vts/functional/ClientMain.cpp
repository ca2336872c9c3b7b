// SPDX-License-Identifier: Apache-2.0
// The other end of ClientProcess.
#include <hidl/HidlTransportSupport.h>

#include <stdio.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

#include "ClientProcess.h"
#include "Target.h"

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

namespace {

// What came, by method.
struct Inbox {
    std::mutex lock;
    std::condition_variable changed;
    std::map<std::string, std::vector<ClientProcess::Event>> events;
};
Inbox& gInbox = *new Inbox;

template <typename Event>
Return<void> keep(const char* method, const hidl_vec<Event>& events) {
    std::lock_guard<std::mutex> guard(gInbox.lock);
    for (const Event& event : events) {
        gInbox.events[method].push_back({event.eventType, event.activity, event.timestamp});
    }
    gInbox.changed.notify_one();
    return Void();
}

// One class serves both versions: which methods are called depends on the registration.
class ActivityCallback : public V1_1::IActivityChangedCallback {
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>& events) override {
        return keep("onActivityChanged", events);
    }
    Return<void> onActivityExtendChanged(
            const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        return keep("onActivityExtendChanged", events);
    }
    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        return keep("onActivityChangedV1_1", events);
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        return keep("onActivityExtendChangedV1_1", events);
    }
};

class EnvironmentCallback : public V1_1::IEnvironmentChangedCallback {
    Return<void> onEnvironmentChanged(const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        return keep("onEnvironmentChanged", events);
    }
    Return<void> onEnvironmentChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        return keep("onEnvironmentChangedV1_1", events);
    }
};

std::string answerOf(const Return<int32_t>& result) {
    return result.isOk() ? std::to_string(int32_t(result)) : "transport";
}
std::string answerOf(const Return<void>& result) {
    return result.isOk() ? "0" : "transport";
}

std::string registerAs(const std::string& side, const std::string& version) {
    const bool older = version == "1.0";
    if (side == "activity") {
        const sp<ActivityCallback> callback = new ActivityCallback;
        return answerOf(older ? activities()->registerActivityCallback(callback)
                              : activities()->registerActivityCallbackV1_1(callback));
    }
    const sp<EnvironmentCallback> callback = new EnvironmentCallback;
    return answerOf(older ? environments()->registerEnvironmentCallback(callback)
                          : environments()->registerEnvironmentCallbackV1_1(callback));
}

std::string eventsOf(const std::string& method, size_t atLeast, int timeoutMs) {
    std::unique_lock<std::mutex> guard(gInbox.lock);
    const auto& events = gInbox.events[method];
    gInbox.changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                            [&] { return events.size() >= atLeast; });
    std::ostringstream text;
    for (const auto& event : events) {
        text << event.eventType << " " << event.id << " " << event.timestamp << " ";
    }
    return text.str();
}

std::string obey(const sp<V1_1::IActivityInterface>& service, const std::string& line) {
    std::istringstream words(line);
    std::string command, what, version;
    size_t count = 0;
    int timeoutMs = 0;
    uint32_t activity = 0, eventType = 0;
    int64_t latencyNs = 0;
    words >> command;
    if (command == "register" && words >> what >> version) return registerAs(what, version);
    if (command == "events" && words >> what >> count >> timeoutMs) {
        return eventsOf(what, count, timeoutMs);
    }
    words >> activity >> eventType >> latencyNs;
    if (command == "enable") {
        return answerOf(service->enableActivityEvent(activity, eventType, latencyNs));
    }
    if (command == "extend") {
        return answerOf(service->enableActivityEventExtend(activity, eventType, latencyNs,
                                                           otherParams(2.0, 0)));
    }
    if (command == "disable") return answerOf(service->disableActivityEvent(activity, eventType));
    return command == "flush" ? answerOf(service->flush()) : "unknown command";
}

}  // namespace

int clientMain() {
    ::android::hardware::configureRpcThreadpool(1, false /* callerWillJoin */);
    const sp<V1_1::IActivityInterface> service = activities();
    if (service == nullptr) {
        fprintf(stderr, "client: nobody serves '%s'\n", gOptions.instance.c_str());
        return 1;
    }
    for (std::string line; std::getline(std::cin, line);) {
        std::cout << "= " << obey(service, line) << std::endl;
    }
    return 0;
}
