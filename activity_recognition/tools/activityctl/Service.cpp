// SPDX-License-Identifier: Apache-2.0
#include "Service.h"

#include <cutils/native_handle.h>
#include <fmt/format.h>
#include <hidl/HidlTransportSupport.h>

#include "Failure.h"
#include "Waiting.h"

namespace activityctl {
namespace {

using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_handle;
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

// A method and its name, for what is said when a call of it fails.
template <typename Pointer>
struct Method {
    constexpr Method(const char* methodName, Pointer method) : name(methodName), pointer(method) {}

    const char* name;
    Pointer pointer;
};

template <typename Interface, typename Pointer, typename... Arguments>
auto ask(const sp<Interface>& object, const Method<Pointer>& method, Arguments&&... arguments) {
    auto result = (object.get()->*method.pointer)(std::forward<Arguments>(arguments)...);
    check(result, method.name);
    return result;
}

// Between two looks for a service that is not there yet.
constexpr int64_t kPauseNs = 50'000'000;

using Queue = std::shared_ptr<DeliveryQueue>;

// Interface: of either version.
template <typename Interface>
class Callback : public Interface {
  public:
    explicit Callback(Queue queue) : mQueue(std::move(queue)) {}

  protected:
    template <typename Events>
    Return<void> take(const char* call, const Events& events) {
        mQueue->push(call, toRecords(events));
        return Void();
    }

  private:
    const Queue mQueue;
};

// The methods of version 1.0 are never called for a version 1.1 registration; if they were, it
// would show.
template <typename Interface>
class ActivityCallback : public Callback<Interface> {
  public:
    using Callback<Interface>::Callback;

    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>& events) override {
        return this->take("onActivityChanged", events);
    }
    Return<void> onActivityExtendChanged(
            const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        return this->take("onActivityExtendChanged", events);
    }
};

class ActivityCallbackV1_1 : public ActivityCallback<V1_1::IActivityChangedCallback> {
  public:
    using ActivityCallback::ActivityCallback;

    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        return take("onActivityChangedV1_1", events);
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        return take("onActivityExtendChangedV1_1", events);
    }
};

template <typename Interface>
class EnvironmentCallback : public Callback<Interface> {
  public:
    using Callback<Interface>::Callback;

    Return<void> onEnvironmentChanged(const hidl_vec<V1_0::ActivityEventExtend>& events) override {
        return this->take("onEnvironmentChanged", events);
    }
};

class EnvironmentCallbackV1_1 : public EnvironmentCallback<V1_1::IEnvironmentChangedCallback> {
  public:
    using EnvironmentCallback::EnvironmentCallback;

    Return<void> onEnvironmentChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>& events) override {
        return take("onEnvironmentChangedV1_1", events);
    }
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

// What the sides call by different names.
struct ActivityNames {
    using InterfaceV1_0 = V1_0::IActivityInterface;
    using InterfaceV1_1 = V1_1::IActivityInterface;
    using CallbackV1_0 = ActivityCallback<V1_0::IActivityChangedCallback>;
    using CallbackV1_1 = ActivityCallbackV1_1;

    static constexpr Method kFindV1_0{"getActivityInterface",
                                      &V1_0::IActivityRecognition::getActivityInterface};
    static constexpr Method kFindV1_1{"getActivityInterfaceV1_1",
                                      &V1_1::IActivityRecognition::getActivityInterfaceV1_1};
    static constexpr Method kList{"getSupportedActivitiesList",
                                  &InterfaceV1_0::getSupportedActivitiesList};
    static constexpr Method kCurrentV1_0{"getCurrentActivity", &InterfaceV1_0::getCurrentActivity};
    static constexpr Method kCurrentV1_1{"getCurrentActivityV1_1",
                                         &InterfaceV1_1::getCurrentActivityV1_1};
    static constexpr Method kRegisterV1_0{"registerActivityCallback",
                                          &InterfaceV1_0::registerActivityCallback};
    static constexpr Method kRegisterV1_1{"registerActivityCallbackV1_1",
                                          &InterfaceV1_1::registerActivityCallbackV1_1};
};

struct EnvironmentNames {
    using InterfaceV1_0 = V1_0::IEnvironmentInterface;
    using InterfaceV1_1 = V1_1::IEnvironmentInterface;
    using CallbackV1_0 = EnvironmentCallback<V1_0::IEnvironmentChangedCallback>;
    using CallbackV1_1 = EnvironmentCallbackV1_1;

    static constexpr Method kFindV1_0{"getEnvironmentInterface",
                                      &V1_0::IActivityRecognition::getEnvironmentInterface};
    static constexpr Method kFindV1_1{"getEnvironmentInterfaceV1_1",
                                      &V1_1::IActivityRecognition::getEnvironmentInterfaceV1_1};
    static constexpr Method kList{"getSupportedEnvironmentsList",
                                  &InterfaceV1_0::getSupportedEnvironmentsList};
    static constexpr Method kCurrentV1_0{"getCurrentEnvironment",
                                         &InterfaceV1_0::getCurrentEnvironment};
    static constexpr Method kCurrentV1_1{"getCurrentEnvironmentV1_1",
                                         &InterfaceV1_1::getCurrentEnvironmentV1_1};
    static constexpr Method kRegisterV1_0{"registerEnvironmentCallback",
                                          &InterfaceV1_0::registerEnvironmentCallback};
    static constexpr Method kRegisterV1_1{"registerEnvironmentCallbackV1_1",
                                          &InterfaceV1_1::registerEnvironmentCallbackV1_1};
};

// What both sides do alike.
template <typename BaseSide, typename Names>
class VersionedSide : public BaseSide {
  public:
    // NULL if the service has no such side. rootV1_1 is the same object as version 1.1, or NULL to
    // be a version 1.0 client.
    template <typename Derived>
    static std::unique_ptr<BaseSide> find(const sp<V1_0::IActivityRecognition>& root,
                                          const sp<V1_1::IActivityRecognition>& rootV1_1) {
        auto side = std::make_unique<Derived>();
        if (rootV1_1 != nullptr) {
            side->mV1_1 = ask(rootV1_1, Names::kFindV1_1);
            side->mV1_0 = side->mV1_1;
        } else {
            side->mV1_0 = ask(root, Names::kFindV1_0);
        }
        if (side->mV1_0 == nullptr) return nullptr;
        return side;
    }

    std::vector<std::string> names() override {
        std::vector<std::string> names;
        ask(mV1_0, Names::kList, [&names](const auto& list) { names = toStrings(list); });
        return names;
    }

    std::vector<Record> current() override {
        std::vector<Record> records;
        const auto take = [&records](const auto& events) { records = toRecords(events); };
        if (mV1_1 != nullptr) {
            ask(mV1_1, Names::kCurrentV1_1, take);
        } else {
            ask(mV1_0, Names::kCurrentV1_0, take);
        }
        return records;
    }

    void receive(const Queue& queue) override {
        if (mV1_1 != nullptr) {
            ask(mV1_1, Names::kRegisterV1_1, new typename Names::CallbackV1_1(queue));
        } else {
            ask(mV1_0, Names::kRegisterV1_0, new typename Names::CallbackV1_0(queue));
        }
    }

  protected:
    sp<typename Names::InterfaceV1_0> mV1_0;
    sp<typename Names::InterfaceV1_1> mV1_1;  // NULL for version 1.0
};

class Activities : public VersionedSide<ActivitySide, ActivityNames> {
  public:
    const char* noun() const override { return "activity"; }
    const char* plural() const override { return "activities"; }
    bool refusalWithdraws() const override { return true; }

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
};

class Environments : public VersionedSide<EnvironmentSide, EnvironmentNames> {
  public:
    const char* noun() const override { return "environment"; }
    const char* plural() const override { return "environments"; }
    bool refusalWithdraws() const override { return false; }

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
}

Service::Service(const std::string& instance, Version version, int64_t waitNs)
    : Service(instance, version) {
    const sigset_t signals = endingSignals();
    const timespec pause = {0, kPauseNs};
    for (int64_t waited = 0; !find(); waited += kPauseNs) {
        // Those signals may be blocked, to be taken later.
        if (waited >= waitNs || sigtimedwait(&signals, nullptr, &pause) > 0) {
            throw Failure(kNoService, fmt::format("no service: nobody serves {}", fullName()));
        }
    }
}

std::unique_ptr<Service> Service::find(const std::string& instance, Version version) {
    std::unique_ptr<Service> service(new Service(instance, version));
    return service->find() ? std::move(service) : nullptr;
}

bool Service::find() {
    // Not getService, which cannot be told to end.
    if (mVersion == Version::k1_1) {
        mRootV1_1 = V1_1::IActivityRecognition::tryGetService(mInstance);
        mRoot = mRootV1_1;
    } else {
        mRoot = V1_0::IActivityRecognition::tryGetService(mInstance);
    }
    return mRoot != nullptr;
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

std::optional<pid_t> Service::pid() {
    pid_t pid = -1;
    check(mRoot->getDebugInfo([&pid](const auto& info) { pid = info.pid; }), "getDebugInfo");
    return pid > 0 ? std::optional(pid) : std::nullopt;
}

void Service::debug(::android::base::unique_fd fd, const std::vector<std::string>& options) {
    native_handle_t* handle = native_handle_create(1 /* descriptor */, 0 /* integers */);
    if (handle == nullptr) throw Failure(kServiceLost, "no memory for a handle");
    handle->data[0] = fd.release();
    hidl_handle owner;
    owner.setTo(handle, true /* shouldOwn */);
    check(mRoot->debug(owner, std::vector<hidl_string>(options.begin(), options.end())), "debug");
}

std::unique_ptr<ActivitySide> Service::findActivities() {
    return Activities::find<Activities>(mRoot, mRootV1_1);
}

std::unique_ptr<EnvironmentSide> Service::findEnvironments() {
    return Environments::find<Environments>(mRoot, mRootV1_1);
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
