// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include "Thread.h"

#include <pthread.h>

#include <exception>
#include <thread>

#include <log/log.h>
#include <utils/Timers.h>

namespace android { namespace hardware { namespace host {

bool startThread(const char* name, std::function<void()> body) {
    try {
        std::thread([name, body = std::move(body)] {
            pthread_setname_np(pthread_self(), name);
            body();
        }).detach();
        return true;
    } catch (const std::exception& error) {
        static LogLimit limit;
        ALOGE_IF(limit.allows(), "Cannot make a thread %s: %s", name, error.what());
        return false;
    }
}

bool LogLimit::allows() {
    const int64_t now = systemTime(SYSTEM_TIME_MONOTONIC);
    int64_t next = mNext;
    return now >= next && mNext.compare_exchange_strong(next, now + seconds_to_nanoseconds(1));
}

}}}  // namespace android::hardware::host
