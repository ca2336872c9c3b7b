#include "Service.h"

#include <fmt/format.h>
#include <hidl/HidlTransportSupport.h>

#include "Failure.h"

namespace activityctl {
namespace {

using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hidl::base::V1_0::IBase;

template <typename T>
void check(const Return<T>& result, const char* method) {
    if (!result.isOk()) {
        throw Failure(kServiceLost,
                      fmt::format("the call of {} failed, the service may have died: {}", method,
                                  result.description()));
    }
}

template <typename T>
T value(const Return<T>& result, const char* method) {
    check(result, method);
    return result;
}

using Queue = std::shared_ptr<DeliveryQueue>;

class ActivityCallbackV1_0 : public V1_0::IActivityChangedCallback {
  public:
    explicit ActivityCallbackV1_0(Queue queue) : mQueue(std::move(queue)) {}

    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>& events) override {
        mQueue->push("onActivityChanged", toRecords(events));
        return Void();
    }
    Return<void> onActivityExtendChanged(
            const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        mQueue->push("onActivityExtendChanged", toRecords(events));
        return Void();
    }

  private:
    const Queue mQueue;
};

class ActivityCallbackV1_1 : public V1_1::IActivityChangedCallback {
  public:
    explicit ActivityCallbackV1_1(Queue queue) : mQueue(std::move(queue)) {}

    // The two of version 1.0 are never called for a version 1.1 registration; if they were, it
    // would show.
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>& events) override {
        mQueue->push("onActivityChanged", toRecords(events));
        return Void();
    }
    Return<void> onActivityExtendChanged(
            const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        mQueue->push("onActivityExtendChanged", toRecords(events));
        return Void();
    }
    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        mQueue->push("onActivityChangedV1_1", toRecords(events));
        return Void();
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        mQueue->push("onActivityExtendChangedV1_1", toRecords(events));
        return Void();
    }

  private:
    const Queue mQueue;
};

class EnvironmentCallbackV1_0 : public V1_0::IEnvironmentChangedCallback {
  public:
    explicit EnvironmentCallbackV1_0(Queue queue) : mQueue(std::move(queue)) {}

    Return<void> onEnvironmentChanged(const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        mQueue->push("onEnvironmentChanged", toRecords(events));
        return Void();
    }

  private:
    const Queue mQueue;
};

class EnvironmentCallbackV1_1 : public V1_1::IEnvironmentChangedCallback {
  public:
    explicit EnvironmentCallbackV1_1(Queue queue) : mQueue(std::move(queue)) {}

    Return<void> onEnvironmentChanged(const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        mQueue->push("onEnvironmentChanged", toRecords(events));
        return Void();
    }
    Return<void> onEnvironmentChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        mQueue->push("onEnvironmentChangedV1_1", toRecords(events));
        return Void();
    }

  private:
    const Queue mQueue;
};

class DeathRecipient : public hidl_death_recipient {
  public:
    explicit DeathRecipient(Queue queue) : mQueue(std::move(queue)) {}

    void serviceDied(uint64_t /*cookie*/, const wp<IBase>& /*who*/) override {
        mQueue->reportDeath();
    }

  private:
    const Queue mQueue;
};

std::vector<std::string> toStrings(const hidl_vec<hidl_string>& list) {
    std::vector<std::string> strings;
    for (const hidl_string& text : list) strings.push_back(text);
    return strings;
}

class Activities : public ActivitySide {
  public:
    // v1_1 is the same object as version 1.1, or NULL to be a version 1.0 client.
    Activities(sp<V1_0::IActivityInterface> v1_0, sp<V1_1::IActivityInterface> v1_1)
        : mV1_0(std::move(v1_0)), mV1_1(std::move(v1_1)) {}

    const char* noun() const override { return "activity"; }
    const char* plural() const override { return "activities"; }
    bool refusalWithdraws() const override { return true; }

    std::vector<std::string> names() override {
        std::vector<std::string> names;
        check(mV1_0->getSupportedActivitiesList(
                      [&names](const auto& list) { names = toStrings(list); }),
              "getSupportedActivitiesList");
        return names;
    }

    std::vector<Record> current() override {
        std::vector<Record> records;
        auto take = [&records](const auto& events) { records = toRecords(events); };
        if (mV1_1 != nullptr) {
            check(mV1_1->getCurrentActivityV1_1(take), "getCurrentActivityV1_1");
        } else {
            check(mV1_0->getCurrentActivity(take), "getCurrentActivity");
        }
        return records;
    }

    int32_t enable(const Pair& pair, const Extras& extras) override {
        if (extras.extended) {
            return value(mV1_0->enableActivityEventExtend(pair.id, pair.eventType, pair.latencyNs,
                                                          extras.params),
                         "enableActivityEventExtend");
        }
        return value(mV1_0->enableActivityEvent(pair.id, pair.eventType, pair.latencyNs),
                     "enableActivityEvent");
    }

    int32_t disable(const Pair& pair) override {
        return value(mV1_0->disableActivityEvent(pair.id, pair.eventType), "disableActivityEvent");
    }

    int32_t flush() override { return value(mV1_0->flush(), "flush"); }

    void receive(const Queue& queue) override {
        if (mV1_1 != nullptr) {
            check(mV1_1->registerActivityCallbackV1_1(new ActivityCallbackV1_1(queue)),
                  "registerActivityCallbackV1_1");
        } else {
            check(mV1_0->registerActivityCallback(new ActivityCallbackV1_0(queue)),
                  "registerActivityCallback");
        }
    }

  private:
    const sp<V1_0::IActivityInterface> mV1_0;
    const sp<V1_1::IActivityInterface> mV1_1;
};

class Environments : public EnvironmentSide {
  public:
    Environments(sp<V1_0::IEnvironmentInterface> v1_0, sp<V1_1::IEnvironmentInterface> v1_1)
        : mV1_0(std::move(v1_0)), mV1_1(std::move(v1_1)) {}

    const char* noun() const override { return "environment"; }
    const char* plural() const override { return "environments"; }
    bool refusalWithdraws() const override { return false; }

    std::vector<std::string> names() override {
        std::vector<std::string> names;
        check(mV1_0->getSupportedEnvironmentsList(
                      [&names](const auto& list) { names = toStrings(list); }),
              "getSupportedEnvironmentsList");
        return names;
    }

    std::vector<Record> current() override {
        std::vector<Record> records;
        auto take = [&records](const auto& events) { records = toRecords(events); };
        if (mV1_1 != nullptr) {
            check(mV1_1->getCurrentEnvironmentV1_1(take), "getCurrentEnvironmentV1_1");
        } else {
            check(mV1_0->getCurrentEnvironment(take), "getCurrentEnvironment");
        }
        return records;
    }

    int32_t enable(const Pair& pair, const Extras& extras) override {
        return value(
                mV1_0->enableEnvironment(pair.id, pair.eventType, pair.latencyNs, extras.params),
                "enableEnvironment");
    }

    int32_t disable(const Pair& pair) override {
        return value(mV1_0->disableEnvironment(pair.id, pair.eventType), "disableEnvironment");
    }

    int32_t init(uint32_t environment, const Extras& extras) override {
        return value(mV1_0->initEnvironment(environment, extras.params), "initEnvironment");
    }

    int32_t exit(uint32_t environment, const Extras& extras) override {
        return value(mV1_0->exitEnvironment(environment, extras.params), "exitEnvironment");
    }

    void receive(const Queue& queue) override {
        if (mV1_1 != nullptr) {
            check(mV1_1->registerEnvironmentCallbackV1_1(new EnvironmentCallbackV1_1(queue)),
                  "registerEnvironmentCallbackV1_1");
        } else {
            check(mV1_0->registerEnvironmentCallback(new EnvironmentCallbackV1_0(queue)),
                  "registerEnvironmentCallback");
        }
    }

  private:
    const sp<V1_0::IEnvironmentInterface> mV1_0;
    const sp<V1_1::IEnvironmentInterface> mV1_1;
};

template <typename T>
std::unique_ptr<T> orUnavailable(std::unique_ptr<T> side, const char* what) {
    if (side == nullptr) {
        throw Failure(kUnavailable,
                      fmt::format("the service offers no {}: its native module has none", what));
    }
    return side;
}

}  // namespace

Service::Service(const std::string& instance, Version version)
    : mInstance(instance), mVersion(version) {
    // One thread is enough: deliveries come one at a time, and none of them blocks.
    ::android::hardware::configureRpcThreadpool(1, false /* callerWillJoin */);
    // tryGetService: a person at a terminal wants to hear now that nobody is there.
    if (version == Version::k1_1) {
        mRootV1_1 = V1_1::IActivityRecognition::tryGetService(instance);
        mRoot = mRootV1_1;
    } else {
        mRoot = V1_0::IActivityRecognition::tryGetService(instance);
    }
    if (mRoot == nullptr) {
        throw Failure(kNoService, fmt::format("no service: nobody serves {}", fullName()));
    }
}

std::string Service::fullName() const {
    return fmt::format("{}/{}",
                       mVersion == Version::k1_1 ? V1_1::IActivityRecognition::descriptor
                                                 : V1_0::IActivityRecognition::descriptor,
                       mInstance);
}

std::vector<std::string> Service::interfaceChain() {
    std::vector<std::string> chain;
    check(mRoot->interfaceChain([&chain](const auto& names) { chain = toStrings(names); }),
          "interfaceChain");
    return chain;
}

std::unique_ptr<ActivitySide> Service::findActivities() {
    sp<V1_1::IActivityInterface> v1_1;
    sp<V1_0::IActivityInterface> v1_0;
    if (mRootV1_1 != nullptr) {
        v1_1 = value(mRootV1_1->getActivityInterfaceV1_1(), "getActivityInterfaceV1_1");
        v1_0 = v1_1;
    } else {
        v1_0 = value(mRoot->getActivityInterface(), "getActivityInterface");
    }
    if (v1_0 == nullptr) return nullptr;
    return std::make_unique<Activities>(v1_0, v1_1);
}

std::unique_ptr<EnvironmentSide> Service::findEnvironments() {
    sp<V1_1::IEnvironmentInterface> v1_1;
    sp<V1_0::IEnvironmentInterface> v1_0;
    if (mRootV1_1 != nullptr) {
        v1_1 = value(mRootV1_1->getEnvironmentInterfaceV1_1(), "getEnvironmentInterfaceV1_1");
        v1_0 = v1_1;
    } else {
        v1_0 = value(mRoot->getEnvironmentInterface(), "getEnvironmentInterface");
    }
    if (v1_0 == nullptr) return nullptr;
    return std::make_unique<Environments>(v1_0, v1_1);
}

std::unique_ptr<ActivitySide> Service::activities() {
    return orUnavailable(findActivities(), "activities");
}

std::unique_ptr<EnvironmentSide> Service::environments() {
    return orUnavailable(findEnvironments(), "environments");
}

void Service::watchDeath(const std::shared_ptr<DeliveryQueue>& queue) {
    mDeathRecipient = new DeathRecipient(queue);
    const bool linked = value(mRoot->linkToDeath(mDeathRecipient, 0), "linkToDeath");
    if (!linked) queue->reportDeath();  // it is dead already
}

}  // namespace activityctl
