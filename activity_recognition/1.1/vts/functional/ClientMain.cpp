#include "ClientMain.h"

#include <hidl/HidlTransportSupport.h>

#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "Target.h"

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

namespace {

std::mutex gOutput;

std::string textOf(const V1_0::ActivityEvent&) {
    return "- -";
}
std::string textOf(const V1_1::ActivityEventV1_1& event) {
    return std::to_string(event.extra) + " -";
}
std::string textOf(const V1_0::ActivityEventExtend& event) {
    return "- " + std::to_string(event.value);
}
std::string textOf(const V1_1::ActivityEventExtendV1_1& event) {
    return std::to_string(event.extra) + " " + std::to_string(event.value);
}

void print(const std::string& text) {
    std::lock_guard<std::mutex> lock(gOutput);
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

template <typename Event>
Return<void> report(const char* method, const hidl_vec<Event>& events) {
    std::ostringstream text;
    text << "call " << method << " " << events.size() << "\n";
    for (const Event& event : events) {
        text << "event " << event.eventType << " " << event.activity << " " << event.timestamp
             << " " << textOf(event) << "\n";
    }
    print(text.str());
    return Void();
}

// One class serves both versions: which methods are called depends on the registration.
class ActivityCallback : public V1_1::IActivityChangedCallback {
  public:
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>& events) override {
        return report("onActivityChanged", events);
    }
    Return<void> onActivityExtendChanged(
            const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        return report("onActivityExtendChanged", events);
    }
    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        return report("onActivityChangedV1_1", events);
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        return report("onActivityExtendChangedV1_1", events);
    }
};

class EnvironmentCallback : public V1_1::IEnvironmentChangedCallback {
  public:
    Return<void> onEnvironmentChanged(const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        return report("onEnvironmentChanged", events);
    }
    Return<void> onEnvironmentChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        return report("onEnvironmentChangedV1_1", events);
    }
};

std::string answerOf(const Return<int32_t>& result) {
    return result.isOk() ? std::to_string(int32_t(result)) : "transport";
}

std::string answerOf(const Return<void>& result) {
    return result.isOk() ? "0" : "transport";
}

class Client {
  public:
    Client() : mActivities(activities()), mEnvironments(environments()) {}

    bool isConnected() const { return mActivities != nullptr; }

    std::string obey(const std::string& line) {
        std::istringstream words(line);
        std::string command;
        words >> command;
        uint32_t id = 0, eventType = 0;
        int64_t number = 0;
        double first = 0.0;
        if (command == "register") {
            std::string side, version;
            words >> side >> version;
            return registerCallback(side, version);
        }
        words >> id >> eventType >> number >> first;
        if (command == "enable") {
            return answerOf(mActivities->enableActivityEvent(id, eventType, number));
        }
        if (command == "extend") {
            return answerOf(mActivities->enableActivityEventExtend(id, eventType, number,
                                                                   otherParams(first, 0)));
        }
        if (command == "disable") {
            return answerOf(mActivities->disableActivityEvent(id, eventType));
        }
        if (command == "flush") return answerOf(mActivities->flush());
        if (command == "churn") return churn(id, eventType, number);
        if (mEnvironments == nullptr) return "none";
        if (command == "init") {
            return answerOf(mEnvironments->initEnvironment(id, otherParams(0.0, 0)));
        }
        if (command == "exit") {
            return answerOf(mEnvironments->exitEnvironment(id, otherParams(0.0, 0)));
        }
        if (command == "env-enable") {
            return answerOf(
                    mEnvironments->enableEnvironment(id, eventType, number, otherParams(0.0, 0)));
        }
        if (command == "env-disable") {
            return answerOf(mEnvironments->disableEnvironment(id, eventType));
        }
        return "unknown command";
    }

  private:
    std::string registerCallback(const std::string& side, const std::string& version) {
        if (side == "activity") {
            const sp<ActivityCallback> callback = new ActivityCallback;
            return answerOf(version == "1.0" ? mActivities->registerActivityCallback(callback)
                                             : mActivities->registerActivityCallbackV1_1(callback));
        }
        if (mEnvironments == nullptr) return "none";
        const sp<EnvironmentCallback> callback = new EnvironmentCallback;
        return answerOf(version == "1.0"
                                ? mEnvironments->registerEnvironmentCallback(callback)
                                : mEnvironments->registerEnvironmentCallbackV1_1(callback));
    }

    std::string churn(uint32_t activity, uint32_t eventType, int64_t times) {
        int64_t granted = 0;
        for (int64_t i = 0; i < times; ++i) {
            const auto enabled =
                    mActivities->enableActivityEvent(activity, eventType, (1 + i % 5) * 1000000000);
            const auto disabled = mActivities->disableActivityEvent(activity, eventType);
            granted += enabled.isOk() && int32_t(enabled) == 0;
            granted += disabled.isOk() && int32_t(disabled) == 0;
        }
        return std::to_string(granted);
    }

    const sp<V1_1::IActivityInterface> mActivities;
    const sp<V1_1::IEnvironmentInterface> mEnvironments;
};

}  // namespace

int clientMain() {
    ::android::hardware::configureRpcThreadpool(1, false /* callerWillJoin */);
    Client client;
    if (!client.isConnected()) {
        fprintf(stderr, "client: nobody serves '%s'\n", gOptions.instance.c_str());
        return 1;
    }
    for (std::string line; std::getline(std::cin, line);) print("= " + client.obey(line) + "\n");
    return 0;
}
