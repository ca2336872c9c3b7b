#include "Client.h"

#include <fmt/format.h>
#include <hidl/HidlTransportSupport.h>
#include <unistd.h>
#include <utils/Timers.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include <condition_variable>
#include <mutex>

namespace storm {
namespace {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hidl::base::V1_0::IBase;
namespace V1_0 = ::vendor::zaltho::hardware::activity_recognition::V1_0;
namespace V1_1 = ::vendor::zaltho::hardware::activity_recognition::V1_1;

constexpr int64_t kLatencyNs = 1000000000;

void note(const std::string& what, const std::string& about = "") {
    const std::string line = fmt::format("{} {} {}{}\n", getpid(), what, now(), about);
    if (write(kNotes, line.data(), line.size()) < 0) _exit(1);
}

template <typename Events>
Return<void> take(const Plan& plan, const char* what, const Events& events) {
    std::string text;
    for (const auto& event : events) {
        text += fmt::format(" {} {}", 2 * event.activity + event.eventType - 1, event.timestamp);
    }
    if (plan.survives) note(what, text);
    if (plan.then == Plan::Then::kHold) {
        note("held");
        for (;;) pause();
    }
    return Void();
}

struct ActivityCallback : V1_1::IActivityChangedCallback {
    explicit ActivityCallback(const Plan& plan) : mPlan(plan) {}
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>& events) override {
        return take(mPlan, "a", events);
    }
    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        return take(mPlan, "A", events);
    }
    Return<void> onActivityExtendChanged(const hidl_vec<V1_0::ActivityEventExtend>&) override {
        return Void();
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>&) override {
        return Void();
    }
    const Plan& mPlan;
};

struct EnvironmentCallback : V1_1::IEnvironmentChangedCallback {
    explicit EnvironmentCallback(const Plan& plan) : mPlan(plan) {}
    Return<void> onEnvironmentChanged(const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        return take(mPlan, "e", events);
    }
    Return<void> onEnvironmentChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        return take(mPlan, "E", events);
    }
    const Plan& mPlan;
};

struct Watcher : ::android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const ::android::wp<IBase>&) override {
        note("lost");
        std::lock_guard<std::mutex> guard(mLock);
        mDied = true;
        mChanged.notify_one();
    }
    void wait() {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [this] { return mDied; });
    }
    std::mutex mLock;
    std::condition_variable mChanged;
    bool mDied = false;
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

struct Client {
    explicit Client(const Plan& plan)
        : mPlan(plan),
          mActivity(new ActivityCallback(plan)),
          mEnvironment(new EnvironmentCallback(plan)) {}

    void enter() {
        sp<V1_0::IActivityInterface> activity;
        sp<V1_0::IActivityRecognition>& root = mRoot;  // kept: its link would go with it
        if (mPlan.newer()) {
            const auto newer = there(V1_1::IActivityRecognition::getService());
            const auto side = there(sure(newer->getActivityInterfaceV1_1()));
            note("found");
            sure(side->registerActivityCallbackV1_1(mActivity));
            activity = side;
            root = newer;
        } else {
            root = there(V1_0::IActivityRecognition::getService());
            activity = there(sure(root->getActivityInterface()));
            note("found");
        }
        mWatcher = new Watcher;
        if (!sure(root->linkToDeath(mWatcher, 0))) throw Lost();
        if (mPlan.older()) sure(activity->registerActivityCallback(mActivity));
        if (mPlan.environment) enterEnvironment(root);
        for (uint32_t pair : mPlan.pairs) enable(activity, pair);
        if (mPlan.pairs.empty()) enable(activity, pairOf(getpid()));
        note("ready");
        mService = activity;
    }

    void enterEnvironment(const sp<V1_0::IActivityRecognition>& root) {
        const auto side = there(sure(root->getEnvironmentInterface()));
        if (mPlan.older()) sure(side->registerEnvironmentCallback(mEnvironment));
        if (mPlan.newer()) {
            const auto newer = there(sp<V1_1::IEnvironmentInterface>(
                    sure(V1_1::IEnvironmentInterface::castFrom(side))));
            sure(newer->registerEnvironmentCallbackV1_1(mEnvironment));
        }
        if (!mPlan.survives) return;
        if (sure(side->initEnvironment(0, {})) != 0) throw Lost();
        if (sure(side->enableEnvironment(0, 1, 0, {})) != 0) throw Lost();
    }

    void enable(const sp<V1_0::IActivityInterface>& service, uint32_t pair) {
        if (sure(service->enableActivityEvent(pair / 2, 1 + pair % 2, kLatencyNs)) != 0) _exit(2);
    }

    void call(unsigned turn) {
        const int64_t begin = now();
        switch (turn % 4) {
            case 0:
                sure(mService->getSupportedActivitiesList([](const auto&) {}));
                note("call", fmt::format(" {}", now() - begin));
                break;
            case 1:
                sure(mService->getCurrentActivity([](const auto&) {}));
                break;
            case 2:
                enable(mService, kQuiet);
                break;
            default:
                // Only a survivor's call can be held against what the module is told.
                if (mPlan.survives) sure(mService->disableActivityEvent(kQuiet / 2, 1));
        }
        if (mPlan.survives) usleep(10000);  // its share of the load, no wait for anything
    }

    const Plan& mPlan;
    const sp<ActivityCallback> mActivity;
    const sp<EnvironmentCallback> mEnvironment;
    sp<Watcher> mWatcher;
    sp<V1_0::IActivityRecognition> mRoot;
    sp<V1_0::IActivityInterface> mService;
};

}  // namespace

int64_t now() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

void live(const Plan& plan) {
    ::android::hardware::configureRpcThreadpool(1, /*callerWillJoin=*/false);
    Client client(plan);
    for (;;) {
        try {
            client.enter();
            if (plan.then != Plan::Then::kCall) client.mWatcher->wait();
            for (unsigned turn = 0; plan.then == Plan::Then::kCall; ++turn) client.call(turn);
        } catch (const Lost&) {
        }
    }
}

}  // namespace storm
