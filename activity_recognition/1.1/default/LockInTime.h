// SPDX-License-Identifier: Apache-2.0
// For who looks at what others may hold for long.
#pragma once

#include <stdint.h>
#include <time.h>

#include <utils/Mutex.h>

#include "InFlight.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Takes it within 100 ms, or not at all: one that is held across a call to a stopped client is not
// waited for. Tried again and again, since the platform's Mutex has no timed lock.
inline bool LockInTime(::android::Mutex& mutex) TRY_ACQUIRE(true, mutex) NO_THREAD_SAFETY_ANALYSIS {
    constexpr int64_t kLimitNs = 100000000;
    const timespec pause = {0, 1000000};
    for (const int64_t endNs = NowNs() + kLimitNs; mutex.tryLock() != 0;) {
        if (NowNs() >= endNs) return false;
        nanosleep(&pause, nullptr);
    }
    return true;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
