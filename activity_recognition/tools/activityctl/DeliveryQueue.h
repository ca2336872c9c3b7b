// SPDX-License-Identifier: Apache-2.0
// Where callbacks leave what they were given. The service calls one client after the other and
// holds a lock meanwhile, so a callback must return at once: the main thread does the printing.
#pragma once

#include <sys/eventfd.h>

#include <cstdint>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <utils/Mutex.h>
#include <utils/Timers.h>

#include "Records.h"

namespace activityctl {

// One call of one callback.
struct Delivery {
    int64_t arrivedNs;  // CLOCK_MONOTONIC
    const char* call;   // the callback's method
    std::vector<Record> records;
};

class DeliveryQueue {
  public:
    // Records that wait to be printed; what arrives above that is counted and dropped, so that a
    // stopped terminal costs neither the service nor this process's memory.
    static constexpr size_t kCapacity = 200'000;

    struct Content {
        std::vector<Delivery> deliveries;
        size_t lost = 0;
        bool serviceDied = false;
    };

    DeliveryQueue() : mEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    void push(const char* call, std::vector<Record> records) {
        const int64_t now = systemTime(SYSTEM_TIME_MONOTONIC);
        {
            ::android::Mutex::Autolock lock(mMutex);
            if (mHeld + records.size() > kCapacity) {
                mContent.lost += records.size();
            } else {
                mHeld += records.size();
                mContent.deliveries.push_back({now, call, std::move(records)});
            }
        }
        eventfd_write(mEvent.get(), 1);
    }

    void reportDeath() {
        {
            ::android::Mutex::Autolock lock(mMutex);
            mContent.serviceDied = true;
        }
        eventfd_write(mEvent.get(), 1);
    }

    // Readable while take() has something new.
    int fd() const { return mEvent.get(); }

    Content take() {
        eventfd_t count;
        eventfd_read(mEvent.get(), &count);
        ::android::Mutex::Autolock lock(mMutex);
        mHeld = 0;
        Content content;
        std::swap(content, mContent);
        return content;
    }

  private:
    const ::android::base::unique_fd mEvent;
    ::android::Mutex mMutex;
    size_t mHeld GUARDED_BY(mMutex) = 0;
    Content mContent GUARDED_BY(mMutex);
};

}  // namespace activityctl
