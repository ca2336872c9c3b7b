// Where callbacks leave what they were given. The service calls one client after the other and
// holds a lock meanwhile, so a callback must return at once: the main thread does the printing.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Records.h"

namespace activityctl {

// One call of one callback.
struct Delivery {
    int64_t arrivedNs;  // CLOCK_MONOTONIC
    const char* call;   // the callback's method
    std::vector<Record> records;
};

inline int64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

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
    ~DeliveryQueue() { close(mEvent); }
    DeliveryQueue(const DeliveryQueue&) = delete;
    DeliveryQueue& operator=(const DeliveryQueue&) = delete;

    void push(const char* call, std::vector<Record> records) {
        const int64_t now = monotonicNs();
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mHeld + records.size() > kCapacity) {
                mContent.lost += records.size();
            } else {
                mHeld += records.size();
                mContent.deliveries.push_back({now, call, std::move(records)});
            }
        }
        eventfd_write(mEvent, 1);
    }

    void reportDeath() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mContent.serviceDied = true;
        }
        eventfd_write(mEvent, 1);
    }

    // Readable while take() has something new.
    int fd() const { return mEvent; }

    Content take() {
        eventfd_t count;
        eventfd_read(mEvent, &count);
        std::lock_guard<std::mutex> lock(mMutex);
        mHeld = 0;
        Content content;
        std::swap(content, mContent);
        return content;
    }

  private:
    const int mEvent;
    std::mutex mMutex;
    size_t mHeld = 0;  // guarded by mMutex
    Content mContent;  // guarded by mMutex
};

}  // namespace activityctl
