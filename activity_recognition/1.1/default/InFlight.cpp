// SPDX-License-Identifier: Apache-2.0
#include "InFlight.h"

#include <pthread.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Written by whoever has taken it. sinceNs is set last and cleared first, and is never the same
// twice: who reads it alike before and after the rest has read the rest of one call.
struct Place {
    std::atomic<bool> taken;
    std::atomic<int64_t> sinceNs;  // 0: nothing runs
    std::atomic<uint64_t> pid;
    std::atomic<uint64_t> thread;
    std::atomic<const CallSite*> site;
};

namespace {

Place gPlaces[InFlight::kPlaces];  // zero at load

Place* TakePlace() {
    for (Place& place : gPlaces) {
        if (!place.taken.load(std::memory_order_relaxed) &&
            !place.taken.exchange(true, std::memory_order_acquire)) {
            return &place;
        }
    }
    return nullptr;
}

}  // namespace

InFlight::Mark::Mark(const CallSite& site, uint64_t pid, int64_t sinceNs) : mPlace(TakePlace()) {
    if (mPlace == nullptr) return;
    mPlace->pid.store(pid, std::memory_order_release);
    mPlace->thread.store(static_cast<uint64_t>(pthread_self()), std::memory_order_release);
    mPlace->site.store(&site, std::memory_order_release);
    mPlace->sinceNs.store(sinceNs, std::memory_order_release);
}

InFlight::Mark::~Mark() {
    if (mPlace == nullptr) return;
    mPlace->sinceNs.store(0, std::memory_order_relaxed);
    mPlace->taken.store(false, std::memory_order_release);
}

std::vector<InFlight::Call> InFlight::look() {
    std::vector<Call> calls;
    std::vector<uint64_t> threads;
    for (const Place& place : gPlaces) {
        const int64_t sinceNs = place.sinceNs.load(std::memory_order_acquire);
        if (sinceNs == 0) continue;
        const uint64_t pid = place.pid.load(std::memory_order_acquire);
        const uint64_t thread = place.thread.load(std::memory_order_acquire);
        const CallSite* const site = place.site.load(std::memory_order_acquire);
        if (place.sinceNs.load(std::memory_order_relaxed) != sinceNs)
            continue;  // it has just ended
        calls.push_back({site, pid, sinceNs, site->holds});
        threads.push_back(thread);
    }
    // What a client asks for from inside its callback comes on the thread that waits for it.
    for (size_t i = 0; i < calls.size(); ++i) {
        for (size_t j = 0; j < calls.size() && calls[i].holds == nullptr; ++j) {
            if (threads[i] == threads[j]) calls[i].holds = calls[j].site->holds;
        }
    }
    return calls;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
