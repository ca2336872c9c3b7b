// SPDX-License-Identifier: Apache-2.0
// HIDL over the host runtime: clients of the service, and a server that does no more than to call.
#include <errno.h>
#include <fcntl.h>
#include <hidl/HidlTransportSupport.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "Peers.h"

namespace bench {
namespace {

using ::android::sp;
using ::android::hardware::configureRpcThreadpool;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
namespace V1_0 = ::vendor::zaltho::hardware::activity_recognition::V1_0;
namespace V1_1 = ::vendor::zaltho::hardware::activity_recognition::V1_1;
using V1_1::ActivityEventV1_1;

struct Receiver : public V1_1::IActivityChangedCallback {
    Return<void> onActivityChangedV1_1(const hidl_vec<ActivityEventV1_1>& events) override {
        consume(events.data(), events.size());
        return Void();
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>&) override {
        return Void();
    }
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>&) override { return Void(); }
    Return<void> onActivityExtendChanged(const hidl_vec<V1_0::ActivityEventExtend>&) override {
        return Void();
    }
};

sp<V1_1::IActivityInterface> activities() {
    configureRpcThreadpool(1, /*callerWillJoin=*/false);
    const sp<V1_1::IActivityRecognition> root = V1_1::IActivityRecognition::getService();
    check(root != nullptr, "getService");
    const Return<sp<V1_1::IActivityInterface>> got = root->getActivityInterfaceV1_1();
    check(got.isOk(), "getActivityInterfaceV1_1");
    return got;
}

void enter(const sp<V1_1::IActivityInterface>& service) {
    check(service->registerActivityCallbackV1_1(new Receiver).isOk(), "register");
}

// Registers with the service and wants all pairs, says so, and stays until it is killed.
[[noreturn]] void watch(int ready) {
    const sp<V1_1::IActivityInterface> service = activities();
    enter(service);
    for (uint32_t pair = 0; pair < kPairs; ++pair) {
        check(service->enableActivityEvent(pair / 2, 1 + pair % 2, 2000000000) == 0, "enable");
    }
    check(write(ready, "", 1) == 1, "ready");
    for (;;) pause();
}

// A client as above, and the socket that hangs up when it dies.
struct Watcher {
    Watcher() {
        int fds[2];
        check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
        pid = Clients::fork(fds[1]);
        if (pid == 0) watch(fds[1]);
        close(fds[1]);
        socket = fds[0];
        check(awaitSocket() == 1, "a client is ready");
    }
    ~Watcher() { close(socket); }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    ssize_t awaitSocket() const {
        char byte;
        return recv(socket, &byte, 1, 0);
    }

    pid_t pid;
    int socket;
};

// Offers what the library offers, and hands all calls to the clients itself.
class Server : public V1_1::IActivityInterface {
  public:
    // The clients, once there are so many.
    std::vector<sp<V1_1::IActivityChangedCallback>> await(size_t count) {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait(lock, [&] { return mCallbacks.size() == count; });
        return mCallbacks;
    }

    Return<void> registerActivityCallbackV1_1(
            const sp<V1_1::IActivityChangedCallback>& callback) override {
        std::lock_guard<std::mutex> lock(mLock);
        mCallbacks.push_back(callback);
        mChanged.notify_one();
        return Void();
    }
    Return<int32_t> flush() override { return 0; }

    Return<void> registerActivityCallback(const sp<V1_0::IActivityChangedCallback>&) override {
        return Void();
    }
    Return<void> getSupportedActivitiesList(getSupportedActivitiesList_cb answer) override {
        answer({});
        return Void();
    }
    Return<int32_t> enableActivityEvent(uint32_t, uint32_t, int64_t) override { return 0; }
    Return<int32_t> enableActivityEventExtend(uint32_t, uint32_t, int64_t,
                                              const V1_0::OtherParams&) override {
        return 0;
    }
    Return<void> getCurrentActivity(getCurrentActivity_cb answer) override {
        answer({});
        return Void();
    }
    Return<int32_t> disableActivityEvent(uint32_t, uint32_t) override { return 0; }
    Return<void> getCurrentActivityV1_1(getCurrentActivityV1_1_cb answer) override {
        answer({});
        return Void();
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<sp<V1_1::IActivityChangedCallback>> mCallbacks;
};

sp<Server> startServer() {
    configureRpcThreadpool(4, /*callerWillJoin=*/false);
    const sp<Server> server = new Server;
    check(server->registerAsService() == ::android::OK, "registerAsService");
    return server;
}

sp<V1_1::IActivityInterface> findServer() {
    configureRpcThreadpool(1, /*callerWillJoin=*/false);
    const sp<V1_1::IActivityInterface> server = V1_1::IActivityInterface::getService();
    check(server != nullptr, "getService");
    return server;
}

// Clients of the service that live for one sample each, from SIGKILL until gone() returns.
[[noreturn]] void kills(const std::function<void(const Watcher&)>& before,
                        const std::function<void(const Watcher&)>& gone) {
    serveSamples({}, [&](int64_t count) {
        std::vector<int64_t> samples;
        while (count-- > 0) {
            const Watcher watcher;
            // So that nothing of its start is still under way.
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            before(watcher);
            const int64_t begin = now();
            kill(watcher.pid, SIGKILL);
            gone(watcher);
            samples.push_back(now() - begin);
            check(waitpid(watcher.pid, nullptr, 0) == watcher.pid, "waitpid");
        }
        return samples;
    });
}

}  // namespace

void callbacks(int count, const std::string& folder) {
    setenv("HIDL_HOST_DIR", folder.c_str(), 1);
    Clients clients;
    for (int i = 0; i < count; ++i) {
        const pid_t pid = Clients::fork();
        if (pid == 0) {
            const auto server = findServer();
            enter(server);
            for (;;) pause();
        }
        clients.add(pid);
    }
    const sp<Server> server = startServer();
    std::vector<ActivityEventV1_1> events;
    for (const Record& record : batch()) {
        events.push_back({record.eventType, record.activity, record.timestamp, record.extra});
    }
    hidl_vec<ActivityEventV1_1> sent;
    sent.setToExternal(events.data(), events.size());
    const auto all = server->await(count);
    serve(clients.pids(), [&] {
        for (const auto& callback : all) {
            check(callback->onActivityChangedV1_1(sent).isOk(), "a callback");
        }
    });
}

void call(const std::string& folder) {
    setenv("HIDL_HOST_DIR", folder.c_str(), 1);
    Clients clients;
    const pid_t pid = Clients::fork();
    if (pid == 0) {
        const auto server = startServer();
        for (;;) pause();
    }
    clients.add(pid);
    const auto server = findServer();
    serve(clients.pids(), [&] { check(server->flush() == 0, "flush"); });
}

void watchers(int count) {
    Clients clients;
    for (int i = 0; i < count; ++i) clients.add((new Watcher)->pid);
    serveSamples(clients.pids(), [](int64_t) { return std::vector<int64_t>(); });
}

void enabler() {
    const sp<V1_1::IActivityInterface> service = activities();
    serveSamples({}, [&](int64_t milliseconds) {
        std::vector<int64_t> samples;
        const int64_t end = now() + milliseconds * 1000000;
        for (int64_t begin; (begin = now()) < end;) {
            const Return<int32_t> done = samples.size() % 2 == 0
                                                 ? service->enableActivityEvent(0, 1, 1000000000)
                                                 : service->disableActivityEvent(0, 1);
            check(done == 0, "enable and disable");
            samples.push_back(now() - begin);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return samples;
    });
}

void deaths(int log) {
    check(fcntl(log, F_SETFL, O_NONBLOCK) == 0, "the service's log");
    char text[64 * 1024];
    const auto drain = [&] {
        const ssize_t size = read(log, text, sizeof(text) - 1);
        text[size > 0 ? size : 0] = '\0';
        check(size > 0 || errno == EAGAIN, "the service's log");
        return size > 0;
    };
    kills(
            [&](const Watcher&) {
                while (drain()) continue;
            },
            [&](const Watcher&) {
                do {
                    pollfd readable = {log, POLLIN, 0};
                    check(poll(&readable, 1, 10000) == 1, "the service cleans up");
                    drain();
                } while (strstr(text, " finish\n") == nullptr);
            });
}

void hangups() {
    kills([](const Watcher&) {}, [](const Watcher& watcher) { watcher.awaitSocket(); });
}

}  // namespace bench
