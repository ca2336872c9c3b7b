// MinimalClient.cpp: asks for one pair, prints the first batch of its events, leaves.
//
//   ar_minimal_client ACTIVITY EVENT_TYPE
#include <hidl/HidlTransportSupport.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

using ::android::sp;
using ::android::wp;
using ::android::hardware::configureRpcThreadpool;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hidl::base::V1_0::IBase;
namespace V1_0 = ::vendor::zaltho::hardware::activity_recognition::V1_0;
namespace V1_1 = ::vendor::zaltho::hardware::activity_recognition::V1_1;

// Between the runtime's threads and main().
struct Inbox {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<V1_1::ActivityEventV1_1> events;
    bool serviceDied = false;
};

// Called on a thread of the runtime, while the service waits and serves nobody else: take the
// events over and return.
class Callback : public V1_1::IActivityChangedCallback {
  public:
    explicit Callback(Inbox& inbox) : mInbox(inbox) {}

    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        std::lock_guard<std::mutex> lock(mInbox.mutex);
        mInbox.events.insert(mInbox.events.end(), events.begin(), events.end());
        mInbox.changed.notify_one();
        return Void();
    }

    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>&) override {
        return Void();
    }

    // The methods of version 1.0 exist, and are never called for a version 1.1 registration.
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>&) override { return Void(); }
    Return<void> onActivityExtendChanged(const hidl_vec<V1_0::ActivityEventExtend>&) override {
        return Void();
    }

  private:
    Inbox& mInbox;
};

class ServiceDeath : public hidl_death_recipient {
  public:
    explicit ServiceDeath(Inbox& inbox) : mInbox(inbox) {}

    void serviceDied(uint64_t /*cookie*/, const wp<IBase>& /*who*/) override {
        std::lock_guard<std::mutex> lock(mInbox.mutex);
        mInbox.serviceDied = true;
        mInbox.changed.notify_one();
    }

  private:
    Inbox& mInbox;
};

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s ACTIVITY EVENT_TYPE\n", argv[0]);
        return 2;
    }
    const uint32_t activity = strtoul(argv[1], nullptr, 0);
    const uint32_t eventType = strtoul(argv[2], nullptr, 0);

    // The runtime may call callbacks until the process ends, so the inbox lives as long.
    static Inbox& inbox = *new Inbox;
    configureRpcThreadpool(1, false /* callerWillJoin */);

    // Kept to the end: whoever drops it is not told of the service's death.
    const sp<V1_1::IActivityRecognition> root = V1_1::IActivityRecognition::tryGetService();
    if (root == nullptr) {
        fprintf(stderr, "no service\n");
        return 1;
    }
    // The runtime keeps recipients weakly: hold it for as long as the link shall last.
    static const sp<ServiceDeath> death = new ServiceDeath(inbox);
    const Return<bool> linked = root->linkToDeath(death, 0 /* cookie */);
    if (!linked.isOk() || !linked) {
        fprintf(stderr, "the service died\n");
        return 1;
    }

    const Return<sp<V1_1::IActivityInterface>> got = root->getActivityInterfaceV1_1();
    const sp<V1_1::IActivityInterface> service =
            got.isOk() ? sp<V1_1::IActivityInterface>(got) : nullptr;
    if (service == nullptr) {
        fprintf(stderr, "no activities: the native module has none\n");
        return 1;
    }
    if (!service->registerActivityCallbackV1_1(new Callback(inbox)).isOk()) return 1;
    const Return<int32_t> enabled =
            service->enableActivityEvent(activity, eventType, 2000000000 /* ns */);
    if (!enabled.isOk() || enabled != 0) {
        // A refusal is a result, not a failure of the call.
        const std::string why =
                enabled.isOk() ? "the service refuses, see its log" : enabled.description();
        fprintf(stderr, "not enabled: %s\n", why.c_str());
        return 1;
    }
    printf("waiting for activity %u, event type %u\n", activity, eventType);
    fflush(stdout);

    std::vector<V1_1::ActivityEventV1_1> events;
    {
        std::unique_lock<std::mutex> lock(inbox.mutex);
        inbox.changed.wait(lock, [] { return !inbox.events.empty() || inbox.serviceDied; });
        if (inbox.serviceDied) {
            fprintf(stderr, "the service died\n");
            return 1;
        }
        events.swap(inbox.events);
    }
    for (const auto& event : events) {
        printf("activity %u, event type %u, extra %u\n", event.activity, event.eventType,
               event.extra);
    }
    const Return<int32_t> disabled = service->disableActivityEvent(activity, eventType);
    return disabled.isOk() && disabled == 0 ? 0 : 1;
}
