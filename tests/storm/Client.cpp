// SPDX-License-Identifier: Apache-2.0
#include "Client.h"

#include <fmt/format.h>
#include <hidl/HidlTransportSupport.h>
#include <unistd.h>
#include <utils/Timers.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include <future>

namespace storm {
namespace {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
namespace V1_0 = ::vendor::zaltho::hardware::activity_recognition::V1_0;
namespace V1_1 = ::vendor::zaltho::hardware::activity_recognition::V1_1;

Plan gPlan;

void note(const std::string& what, const std::string& more = "") {
    const std::string line = fmt::format("{} {} {}{}\n", getpid(), what, now(), more);
    if (write(kNotes, line.data(), line.size()) < 0) _exit(1);
}

template <typename Events>
Return<void> take(const char* what, const Events& events) {
    std::string text;
    for (const auto& event : events) {
        text += fmt::format(" {} {}", 2 * event.activity + event.eventType - 1, event.timestamp);
    }
    if (gPlan.survives) note(what, text);
    if (gPlan.then == Plan::Then::kHold) note("held");
    while (gPlan.then == Plan::Then::kHold) pause();
    return Void();
}

using Events = hidl_vec<V1_0::ActivityEvent>;
using EventsV1_1 = hidl_vec<V1_1::ActivityEventV1_1>;
using Extended = hidl_vec<V1_0::ActivityEventExtend>;
using ExtendedV1_1 = hidl_vec<V1_1::ActivityEventExtendV1_1>;
struct ActivityCallback : V1_1::IActivityChangedCallback {
    Return<void> onActivityChanged(const Events& events) override { return take("a", events); }
    Return<void> onActivityChangedV1_1(const EventsV1_1& events) override {
        return take("A", events);
    }
    Return<void> onActivityExtendChanged(const Extended&) override { return Void(); }
    Return<void> onActivityExtendChangedV1_1(const ExtendedV1_1&) override { return Void(); }
};
struct EnvironmentCallback : V1_1::IEnvironmentChangedCallback {
    Return<void> onEnvironmentChanged(const Extended& events) override { return take("e", events); }
    Return<void> onEnvironmentChangedV1_1(const ExtendedV1_1& events) override {
        return take("E", events);
    }
};
struct Watcher : ::android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {
        note("lost");
        died.set_value();
    }
    std::promise<void> died;
};

// Every call may meet a service that dies: then all begins anew.
struct Lost {};
template <typename T>
T sure(const Return<T>& result) {
    if (!result.isOk()) throw Lost();
    return result;
}
void sure(const Return<void>& result) {
    if (!result.isOk()) throw Lost();
}
template <typename T>
sp<T> there(const sp<T>& object) {
    if (object == nullptr) throw Lost();
    return object;
}

void enable(const sp<V1_0::IActivityInterface>& service, uint32_t pair) {
    if (sure(service->enableActivityEvent(pair / 2, 1 + pair % 2, 1000000000)) != 0) _exit(2);
}

void enterEnvironment(const sp<V1_0::IActivityRecognition>& root) {
    static const sp<EnvironmentCallback> callback = new EnvironmentCallback;
    const auto side = there(sure(root->getEnvironmentInterface()));
    if (gPlan.older()) sure(side->registerEnvironmentCallback(callback));
    if (gPlan.newer()) {
        const auto newer = there(sure(V1_1::IEnvironmentInterface::castFrom(side)));
        sure(newer->registerEnvironmentCallbackV1_1(callback));
    }
    if (gPlan.survives && sure(side->initEnvironment(0, {})) != 0) _exit(2);
    if (gPlan.survives && sure(side->enableEnvironment(0, 1, 0, {})) != 0) _exit(2);
}

void call(const sp<V1_0::IActivityInterface>& service, unsigned turn) {
    const int64_t begin = now();
    if (turn % 4 == 0) sure(service->getSupportedActivitiesList([](const auto&) {}));
    if (turn % 4 == 0) note("call", fmt::format(" {}", now() - begin));
    if (turn % 4 == 1) sure(service->getCurrentActivity([](const auto&) {}));
    if (turn % 4 == 2) enable(service, kQuiet);
    if (!gPlan.survives) return;
    // Of those that die while they withdraw nobody knows whether the module was to be told.
    if (turn % 4 == 3) sure(service->disableActivityEvent(kQuiet / 2, 1));
    usleep(10000);  // not to take all of the machine
}

// One service's life.
void visit() {
    static const sp<ActivityCallback> callback = new ActivityCallback;
    sp<V1_0::IActivityRecognition> root;  // kept: the link to its death would go with it
    sp<V1_0::IActivityInterface> service;
    if (gPlan.newer()) {
        const auto newer = there(V1_1::IActivityRecognition::getService());
        const auto side = there(sure(newer->getActivityInterfaceV1_1()));
        note("found");
        sure(side->registerActivityCallbackV1_1(callback));
        root = newer;
        service = side;
    } else {
        root = there(V1_0::IActivityRecognition::getService());
        service = there(sure(root->getActivityInterface()));
        note("found");
    }
    const sp<Watcher> watcher = new Watcher;
    if (!sure(root->linkToDeath(watcher, 0))) throw Lost();
    if (gPlan.older()) sure(service->registerActivityCallback(callback));
    if (gPlan.environment) enterEnvironment(root);
    if (gPlan.pairs.empty()) enable(service, pairOf(getpid()));
    for (uint32_t pair : gPlan.pairs) enable(service, pair);
    note("ready");
    for (unsigned turn = 0; gPlan.then == Plan::Then::kCall; ++turn) call(service, turn);
    watcher->died.get_future().wait();
}

}  // namespace

int64_t now() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

void live(const Plan& plan) {
    gPlan = plan;
    ::android::hardware::configureRpcThreadpool(1, /*callerWillJoin=*/false);
    for (;;) {
        try {
            visit();
        } catch (const Lost&) {
        }
    }
}

}  // namespace storm
