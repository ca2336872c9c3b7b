// SPDX-License-Identifier: Apache-2.0
// What a command that stays waits for besides what it is about: signals and times, as descriptors.
#pragma once

#include <signal.h>

#include <cstdint>
#include <initializer_list>
#include <optional>

#include <android-base/unique_fd.h>

namespace activityctl {

// Those that end a command in order, SIGINT, SIGTERM and SIGHUP; more: what a command takes
// besides.
sigset_t endingSignals(std::initializer_list<int> more = {});

// Blocks them, also in threads that the service's calls start later.
void takeOverSignals(const sigset_t& signals = endingSignals());

// Readable when one of them has come that takeOverSignals() has blocked; reading does not block.
::android::base::unique_fd openSignals(const sigset_t& signals = endingSignals());

// Readable after so long, at once for 0, never without a time; then again after each interval.
::android::base::unique_fd openTimer(std::optional<int64_t> ns, int64_t intervalNs = 0);

}  // namespace activityctl
