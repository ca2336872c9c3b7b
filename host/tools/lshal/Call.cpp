// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include <android-base/unique_fd.h>
#include <android/hidl/manager/1.0/IServiceManager.h>
#include <fmt/format.h>
#include <hidl/ServiceManagement.h>

#include "Commands.h"

namespace lshal {

namespace {

using android::sp;
using android::base::unique_fd;
using android::hardware::defaultServiceManager;
using android::hardware::hidl_handle;
using android::hardware::hidl_string;
using android::hardware::hidl_vec;
using android::hidl::base::V1_0::IBase;
using Clock = std::chrono::steady_clock;

// A pipe takes so much without waiting when it says that it takes anything.
constexpr size_t kChunk = 4096;

// How long what still comes is read after a signal.
constexpr std::chrono::seconds kDrainLimit{1};

bool isRegistered(const Name& name) {
    bool registered = false;
    defaultServiceManager()
            ->list([&](const hidl_vec<hidl_string>& names) {
                for (const hidl_string& each : names) registered |= each == name.text();
            })
            .isOk();
    return registered;
}

ExitStatus call(const Name& name, const std::vector<std::string>& arguments, unique_fd writer,
                std::atomic<bool>* calling) {
    const sp<IBase> service =
            defaultServiceManager()->get(name.interface, name.instance).withDefault(nullptr);
    if (service == nullptr) {
        const bool registered = isRegistered(name);
        complain(name.text() + (registered ? ": the process that serves it does not answer"
                                           : ": nobody serves it"));
        return registered ? kFailed : kNoService;
    }
    native_handle_t* created = native_handle_create(1, 0);
    created->data[0] = writer.release();
    hidl_handle handle;
    handle.setTo(created, true);
    *calling = true;
    const auto result =
            service->debug(handle, hidl_vec<hidl_string>(arguments.begin(), arguments.end()));
    if (result.isOk()) return kOk;
    complain(name.text() + ": " +
             (result.isDeadObject() ? "the service died" : result.description()));
    return kFailed;
}

unique_fd endingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
    return unique_fd(signalfd(-1, &signals, SFD_CLOEXEC));
}

// Stops when a signal has come. 0, or errno.
int print(const char* bytes, size_t size, int signals) {
    while (size > 0) {
        pollfd events[] = {{signals, POLLIN, 0}, {STDOUT_FILENO, POLLOUT, 0}};
        if (poll(events, 2, -1) < 0 && errno != EINTR) return errno;
        if (events[0].revents != 0) return 0;
        const ssize_t written = write(STDOUT_FILENO, bytes, std::min(size, kChunk));
        if (written < 0 && errno != EINTR && errno != EAGAIN) return errno;
        if (written < 0) continue;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return 0;
}

// Ends this process as the signal would have.
[[noreturn]] void endBy(int number) {
    signal(number, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    raise(number);
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    _exit(128 + number);
}

}  // namespace

ExitStatus debug(const Name& name, const std::vector<std::string>& arguments) {
    int ends[2];
    const unique_fd signals = endingSignals();
    if (signals.get() < 0 || pipe2(ends, O_CLOEXEC) != 0) {
        complain(fmt::format("no pipe can be made: {}", strerror(errno)));
        return kFailed;
    }
    const unique_fd reader(ends[0]);
    ExitStatus status = kFailed;
    std::atomic<bool> calling{false};
    // Its end of the pipe is closed when the call has returned.
    std::thread caller([&, writer = unique_fd(ends[1])]() mutable {
        status = call(name, arguments, std::move(writer), &calling);
    });

    int error = 0;
    int ended = 0;  // the signal
    Clock::time_point limit;
    for (;;) {
        pollfd events[] = {{signals.get(), POLLIN, 0}, {reader.get(), POLLIN, 0}};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
        const int ready = poll(events, 2, ended == 0 ? -1 : std::max<int>(left.count(), 0));
        if (ended != 0 && Clock::now() >= limit) endBy(ended);
        if (ready <= 0) continue;
        if (events[0].revents != 0) {
            signalfd_siginfo info = {};
            if (read(signals.get(), &info, sizeof(info)) != sizeof(info)) continue;
            if (ended != 0 || !calling) endBy(static_cast<int>(info.ssi_signo));
            ended = static_cast<int>(info.ssi_signo);
            limit = Clock::now() + kDrainLimit;
        } else {
            char bytes[16 * kChunk];
            const ssize_t size = read(reader.get(), bytes, sizeof(bytes));
            if (size == 0) break;
            if (size < 0 || ended != 0 || error != 0) continue;
            error = print(bytes, static_cast<size_t>(size), signals.get());
        }
    }
    caller.join();
    if (ended != 0) endBy(ended);
    if (error == 0 || status != kOk) return status;
    complain(fmt::format("the output could not be written: {}", strerror(error)));
    return kFailed;
}

ExitStatus wait(const Name& name) {
    android::hardware::details::getRawServiceInternal(name.interface, name.instance,
                                                      /*retry=*/true, /*getStub=*/false);
    return kOk;
}

}  // namespace lshal
