// SPDX-License-Identifier: Apache-2.0
// A module that keeps all rules but the one that the environment variable BREAK names.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <zaltho/activity_recognition_native.h>

namespace {

bool breaks(const char* rule) {
    static const char* const broken = getenv("BREAK");
    return broken != nullptr && strcmp(broken, rule) == 0;
}

char sStill[] = "still", sWalking[] = "walking", sOther[] = "other";
char* sNames[] = {sStill, sWalking};

template <typename T>
T* wild() {
    return reinterpret_cast<T*>(uintptr_t{0x1000});
}

using Clock = std::chrono::steady_clock;

struct Record {
    uint32_t activity, type;
    int64_t time;
    Clock::time_point due;
};

struct State {
    std::mutex lock;
    std::mutex delivery;  // held during callbacks
    std::condition_variable changed;
    bool running = false;
    std::thread worker;
    const activity_callbacks* callbacks = nullptr;
    std::map<std::pair<uint32_t, uint32_t>, int64_t> enabled;  // with the latency
    std::vector<Record> held;
    Clock::time_point detected = Clock::now();
    const other_params* kept = nullptr;
    std::atomic<int> callers{0};
    int64_t time = 1;
};
State& s = *new State;

// Long before it must be, which is no fault.
Clock::time_point dueIn(int64_t latency) {
    return Clock::now() + std::chrono::nanoseconds(latency / 100);
}

// Everything happens every 10 ms, whether the worker has time for it or not.
void detect() {
    auto pairs = s.enabled;
    if (breaks("event.enabled") && !pairs.empty()) pairs[{1, 2}] = 0;
    for (; s.detected + std::chrono::milliseconds(10) <= Clock::now();
         s.detected += std::chrono::milliseconds(10)) {
        ++s.time;
        for (const auto& pair : pairs) {
            if (s.held.size() == 192) break;
            s.held.push_back({pair.first.first, pair.first.second, s.time, dueIn(pair.second)});
        }
    }
}

// What is due at that time.
void deliver(std::unique_lock<std::mutex>& lock, Clock::time_point until, bool withExtended) {
    if (s.kept != nullptr && s.kept->params[0] == 3) return;
    std::vector<activity_event> plain;
    std::vector<ar_context_event> extended;
    std::vector<Record> later;
    for (const Record& record : s.held) {
        const bool enabled = s.enabled.count({record.activity, record.type}) != 0;
        if (!enabled && !breaks("event.enabled")) continue;
        if (record.due > until) {
            later.push_back(record);
            continue;
        }
        const uint32_t activity = record.activity + (breaks("event.activity") ? 2 : 0);
        const uint32_t type = breaks("event.type") ? 3 : record.type;
        const int64_t time = record.time - (breaks("event.time") ? record.time % 2 * 3 : 0);
        plain.push_back({type, activity, time, 0, {}});
        ar_context_event event = {type, activity, time, 0, 0, {}, "text"};
        if (breaks("event.name")) memset(event.name, 'n', sizeof(event.name));
        extended.push_back(event);
    }
    s.held.swap(later);
    if (plain.empty()) return;
    if (breaks("event.count")) plain.resize(193, plain[0]);
    if (!breaks("reentry.calls")) lock.unlock();
    {
        std::unique_lock<std::mutex> delivery(s.delivery, std::defer_lock);
        if (breaks("threads.blocked")) delivery.lock();
        s.callbacks->activity_changed(breaks("event.array") ? nullptr : plain.data(),
                                      static_cast<int>(plain.size()));
        if (withExtended)
            s.callbacks->activity_extend_changed(extended.data(),
                                                 static_cast<int>(extended.size()));
    }
    if (!lock.owns_lock()) lock.lock();
}

thread_local bool sIsWorker = false;

void work() {
    sIsWorker = true;
    std::unique_lock<std::mutex> lock(s.lock);
    while (s.running) {
        detect();
        deliver(lock, Clock::now(), true);
        s.changed.wait_for(lock, std::chrono::milliseconds(10));
    }
}

void register_callbacks(const activity_callbacks* callbacks) {
    std::lock_guard<std::mutex> lock(s.lock);
    s.callbacks = callbacks;
}

int get_list(char*** list) {
    static char* wildNames[] = {sStill, wild<char>()};
    static std::atomic<int> calls{0};
    *list = breaks("list.size") ? nullptr : breaks("list.names") ? wildNames : sNames;
    if (breaks("list.stable") && ++calls == 3) sNames[1] = sOther;
    return 2;
}

int enable(uint32_t activity, uint32_t event_type, int64_t latency) {
    // A module that can take one caller only.
    if (breaks("threads.calls")) {
        const bool alone = s.callers.fetch_add(1) == 0;
        std::this_thread::yield();
        s.callers.fetch_sub(1);
        if (!alone) return -EBUSY;
    }
    std::unique_lock<std::mutex> lock(s.lock);
    detect();
    int64_t& promised = s.enabled.insert({{activity, event_type}, latency}).first->second;
    if (!breaks("latency.kept")) promised = latency;
    for (Record& record : s.held)
        if (!breaks("latency.held")) record.due = std::min(record.due, dueIn(promised));
    // The thread that does it anyway.
    if (breaks("enable.delivers") && sIsWorker) deliver(lock, Clock::time_point::max(), false);
    return 0;
}

int enable_extend(uint32_t activity, uint32_t event_type, int64_t latency,
                  const other_params* params) {
    if (breaks("params.bounded") && strlen(params->name) == 33) return 1;
    if (breaks("call.results") && params->params[0] == 1) return 1;
    const int result = enable(activity, event_type, latency);
    std::lock_guard<std::mutex> lock(s.lock);
    if (breaks("params.retained")) s.kept = params;
    return result;
}

int get_current(ar_context_event** events) {
    static thread_local ar_context_event own[6];
    static ar_context_event shared;
    static std::atomic<uint32_t> queries{0};
    {
        std::lock_guard<std::mutex> lock(s.lock);
        detect();
        for (ar_context_event& event : own) event = {1, 0, s.time, 0, 0, {}, "still"};
    }
    if (breaks("snapshot.names")) memset(own[0].name, 'n', sizeof(own[0].name));
    *events = breaks("snapshot.records") ? nullptr : own;
    if (breaks("snapshot.stable")) {
        std::lock_guard<std::mutex> lock(s.lock);
        shared = own[0];
        shared.value = ++queries;
        *events = &shared;
    }
    return breaks("snapshot.size") ? 6 : 1;
}

int disable(uint32_t activity, uint32_t event_type) {
    if (breaks("close.tables") && !s.worker.joinable()) abort();
    std::unique_lock<std::mutex> lock(s.lock);
    detect();
    // Everybody's thread but its own, which may be in a callback.
    if (breaks("disable.delivers") && !sIsWorker) deliver(lock, Clock::time_point::max(), false);
    if (!breaks("event.disabled")) s.enabled.erase({activity, event_type});
    return 0;
}

int flush() {
    if (breaks("threads.blocked") && !sIsWorker) std::lock_guard<std::mutex> delivered(s.delivery);
    std::unique_lock<std::mutex> lock(s.lock);
    detect();
    if (breaks("flush.delivers") || (breaks("reentry.nested") && sIsWorker))
        deliver(lock, Clock::time_point::max(), false);
    for (Record& record : s.held) record.due = Clock::now();
    s.changed.notify_one();
    return 0;
}

activity_interface sTable = {register_callbacks, get_list, enable, enable_extend,
                             get_current,        disable,  flush};
hw_module_methods_t sMethods;
activity_recognition_device sDevice;

int close_device(hw_device_t*) {
    if (breaks("close.silent")) return 0;
    {
        std::lock_guard<std::mutex> lock(s.lock);
        s.running = false;
        s.enabled.clear();
        s.held.clear();
        s.changed.notify_one();
    }
    s.worker.join();
    return breaks("device.close") ? -EIO : 0;
}

int open_device(const hw_module_t*, const char* id, hw_device_t** device) {
    if (breaks("module.open")) return -ENODEV;
    const bool known = strcmp(id, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE) == 0;
    if (!known && !breaks("device.name")) return -EINVAL;
    if (breaks("open.hangs")) fprintf(stderr, "open hangs\n");
    while (breaks("open.hangs")) pause();
    sDevice.common.tag = breaks("device.tag") ? 0 : HARDWARE_DEVICE_TAG;
    sDevice.common.close = close_device;
    if (breaks("table.slots")) sTable.get_current_activity = nullptr;
    sDevice.get_activity_interface = [](auto*) -> const activity_interface* { return &sTable; };
    sDevice.get_environment_interface = [](auto*) {
        return breaks("device.tables") ? wild<const environment_interface>() : nullptr;
    };
    *device = &sDevice.common;
    std::lock_guard<std::mutex> lock(s.lock);
    s.running = true;
    s.worker = std::thread(work);
    return 0;
}

hw_module_t makeModule() {
    hw_module_t module = {};
    sMethods.open = open_device;
    module.tag = breaks("module.tag") ? HARDWARE_DEVICE_TAG : HARDWARE_MODULE_TAG;
    module.id = breaks("module.id") ? "sensors" : ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID;
    module.methods = &sMethods;
    return module;
}

}  // namespace

extern "C" hw_module_t HMI;
hw_module_t HMI = makeModule();
