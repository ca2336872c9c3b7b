// SPDX-License-Identifier: Apache-2.0
// A client to start from: asks for one pair and prints its events, whatever becomes of the service.
//
//   activity_client ACTIVITY EVENT_TYPE
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

#include <mutex>
#include <vector>

#include <hidl/HidlTransportSupport.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

using namespace ::vendor::zaltho::hardware::activity_recognition;
using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

// Between the runtime's threads and main(). Lives as long as the process, as callbacks may.
static struct Inbox {
    std::mutex lock;
    std::vector<V1_1::ActivityEventV1_1> events;
    bool serviceDied = false;
    const int changed = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}& sInbox = *new Inbox;

// Called on a thread of the runtime, while the service waits and serves nobody else: take the
// events over and return.
class Callback : public V1_1::IActivityChangedCallback {
    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        std::lock_guard<std::mutex> guard(sInbox.lock);
        sInbox.events.insert(sInbox.events.end(), events.begin(), events.end());
        eventfd_write(sInbox.changed, 1);
        return Void();
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>&) override {
        return Void();
    }
    // The methods of version 1.0 are never called for a version 1.1 registration.
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>&) override { return Void(); }
    Return<void> onActivityExtendChanged(const hidl_vec<V1_0::ActivityEventExtend>&) override {
        return Void();
    }
};

class ServiceDeath : public ::android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {
        std::lock_guard<std::mutex> guard(sInbox.lock);
        sInbox.serviceDied = true;
        eventfd_write(sInbox.changed, 1);
    }
};

// Prints what comes until the service dies or a signal ends it all; says whether it was a signal.
static bool printEvents(int signals) {
    for (;;) {
        pollfd ready[] = {{signals, POLLIN, 0}, {sInbox.changed, POLLIN, 0}};
        if (poll(ready, 2, -1) > 0 && ready[0].revents != 0) return true;
        eventfd_t count;
        eventfd_read(sInbox.changed, &count);
        std::unique_lock<std::mutex> guard(sInbox.lock);
        std::vector<V1_1::ActivityEventV1_1> events;
        events.swap(sInbox.events);
        const bool died = sInbox.serviceDied;
        sInbox.serviceDied = false;
        guard.unlock();
        for (const auto& event : events) {
            printf("activity %u, event type %u\n", event.activity, event.eventType);
        }
        fflush(stdout);
        if (died) return false;
    }
}

int main(int argc, char** argv) {
    if (argc != 3) return fprintf(stderr, "usage: %s ACTIVITY EVENT_TYPE\n", argv[0]), 2;
    const uint32_t activity = strtoul(argv[1], nullptr, 0);
    const uint32_t eventType = strtoul(argv[2], nullptr, 0);
    sigset_t ending;
    sigemptyset(&ending);
    for (int number : {SIGINT, SIGTERM}) sigaddset(&ending, number);
    sigprocmask(SIG_BLOCK, &ending, nullptr);  // before the runtime's threads inherit it
    const int signals = signalfd(-1, &ending, SFD_CLOEXEC);
    ::android::hardware::configureRpcThreadpool(1, false /* callerWillJoin */);

    for (;;) {
        // Waits until somebody serves, which is right for a program that is nothing without. One
        // that has other things to do asks tryGetService(), which answers at once, now and then.
        const sp<V1_1::IActivityRecognition> root = V1_1::IActivityRecognition::getService();
        if (root == nullptr) return fprintf(stderr, "not declared, or not allowed\n"), 1;
        // Keep both: the runtime holds recipients weakly, and a link goes with the root object.
        const sp<ServiceDeath> death = new ServiceDeath;
        if (!root->linkToDeath(death, 0).withDefault(false)) continue;  // it is dead already
        const Return<sp<V1_1::IActivityInterface>> got = root->getActivityInterfaceV1_1();
        if (!got.isOk()) continue;  // it died meanwhile
        const sp<V1_1::IActivityInterface> service = got;
        if (service == nullptr) return fprintf(stderr, "the module has no activities\n"), 1;
        // A new service knows nothing of this process: register and ask again.
        if (!service->registerActivityCallbackV1_1(new Callback).isOk()) continue;
        const Return<int32_t> enabled =
                service->enableActivityEvent(activity, eventType, 2000000000 /* ns */);
        if (!enabled.isOk()) continue;
        if (enabled != 0) return fprintf(stderr, "refused: the service's log says why\n"), 1;
        fprintf(stderr, "waiting for activity %u, event type %u\n", activity, eventType);
        if (printEvents(signals)) {
            // Death would take the request, too, but tell the module nothing.
            return service->disableActivityEvent(activity, eventType).withDefault(1);
        }
        fprintf(stderr, "the service died\n");
    }
}
