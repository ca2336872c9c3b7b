// SPDX-License-Identifier: Apache-2.0
#include "Waiting.h"

#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <algorithm>

namespace activityctl {

using ::android::base::unique_fd;

sigset_t endingSignals(std::initializer_list<int> more) {
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
    for (int number : more) sigaddset(&signals, number);
    return signals;
}

void takeOverSignals(const sigset_t& signals) {
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

unique_fd openSignals(const sigset_t& signals) {
    return unique_fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

unique_fd openTimer(std::optional<int64_t> ns, int64_t intervalNs) {
    unique_fd fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (ns) {
        const auto toTimespec = [](int64_t time) {
            return timespec{time / 1'000'000'000, time % 1'000'000'000};
        };
        // A wait of 0 would disarm it.
        const itimerspec after{toTimespec(intervalNs), toTimespec(std::max<int64_t>(*ns, 1))};
        timerfd_settime(fd.get(), 0, &after, nullptr);
    }
    return fd;
}

}  // namespace activityctl
