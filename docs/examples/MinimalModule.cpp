// MinimalModule.cpp: the smallest native module that keeps all rules of docs/writing-a-module.md.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <zaltho/activity_recognition_native.h>

namespace {

using Clock = std::chrono::steady_clock;
using Pair = std::pair<uint32_t, uint32_t>;  // activity, event type

char sStill[] = "still", sWalking[] = "walking";
char* sNames[] = {sStill, sWalking};
constexpr uint32_t kActivities = 2;
constexpr auto kDetectionPeriod = std::chrono::milliseconds(100);

struct State {
    std::mutex lock;  // never held during a callback
    std::condition_variable changed;
    std::thread worker;
    bool open = false;
    const activity_callbacks* callbacks = nullptr;
    std::map<Pair, int64_t> latencies;  // of the enabled pairs
    std::set<Pair> extended;            // those of them that were enabled by the extended slot
    std::vector<activity_event> held;
    activity_event last = {};
    Clock::time_point deadline = Clock::time_point::max();  // of what is held
};

// Never destroyed: the service may call the tables as long as the process lives.
State& state() {
    static State* const state = new State;
    return *state;
}

int64_t nanoseconds(Clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

// In place of sensors: a person who stops and goes on.
activity_event detect(uint32_t step) {
    activity_event event = {};
    event.event_type = 1 + step % 2;
    event.activity = step / 2 % kActivities;
    event.timestamp = nanoseconds(Clock::now());
    return event;
}

ar_context_event describe(const activity_event& event) {
    ar_context_event described = {};
    described.event_type = event.event_type;
    described.activity = event.activity;
    described.timestamp = event.timestamp;
    strcpy(described.name, sNames[event.activity]);
    return described;
}

Clock::time_point deadlineIn(int64_t latency) {
    // Latencies reach up to INT64_MAX; a cut at ten years keeps the sum in range.
    const int64_t longest = INT64_C(315360000) * 1000000000;
    return Clock::now() + std::chrono::nanoseconds(std::min(latency, longest));
}

void add(State& s, const activity_event& event) {
    s.last = event;
    const auto pair = s.latencies.find({event.activity, event.event_type});
    if (pair == s.latencies.end()) return;
    s.held.push_back(event);
    s.deadline = std::min(s.deadline, deadlineIn(pair->second));
    if (s.held.size() == ACTIVITY_RECOGNITION_MAX_EVENTS) s.deadline = Clock::now();
}

void work() {
    State& s = state();
    std::unique_lock<std::mutex> lock(s.lock);
    uint32_t step = 0;
    Clock::time_point detection = Clock::now();
    while (s.open) {
        if (Clock::now() >= detection) {
            add(s, detect(step++));
            detection += kDetectionPeriod;
        }
        if (Clock::now() >= s.deadline) {
            std::vector<activity_event> batch;
            batch.swap(s.held);
            std::vector<ar_context_event> extended;
            for (const activity_event& event : batch) {
                if (s.extended.count({event.activity, event.event_type}) != 0) {
                    extended.push_back(describe(event));
                }
            }
            s.deadline = Clock::time_point::max();
            const activity_callbacks* callbacks = s.callbacks;
            lock.unlock();
            if (callbacks != nullptr && !batch.empty()) {
                callbacks->activity_changed(batch.data(), static_cast<int>(batch.size()));
            }
            if (callbacks != nullptr && !extended.empty()) {
                callbacks->activity_extend_changed(extended.data(),
                                                   static_cast<int>(extended.size()));
            }
            lock.lock();
        } else {
            s.changed.wait_until(lock, std::min(detection, s.deadline));
        }
    }
}

bool isPair(uint32_t activity, uint32_t event_type) {
    return activity < kActivities && (event_type == 1 || event_type == 2);
}

void register_activity_callbacks(const activity_callbacks* callbacks) {
    std::lock_guard<std::mutex> lock(state().lock);
    state().callbacks = callbacks;
}

int get_supported_activities_list(char*** list) {
    *list = sNames;
    return kActivities;
}

int enable_activity_event(uint32_t activity, uint32_t event_type, int64_t report_latency_ns) {
    if (!isPair(activity, event_type)) return -EINVAL;
    std::lock_guard<std::mutex> lock(state().lock);
    state().latencies[{activity, event_type}] = report_latency_ns;
    // A shorter latency must not wait for the longer one that was promised before.
    if (!state().held.empty()) {
        state().deadline = std::min(state().deadline, deadlineIn(report_latency_ns));
        state().changed.notify_one();
    }
    return 0;
}

int enable_activity_event_extend(uint32_t activity, uint32_t event_type, int64_t report_latency_ns,
                                 const other_params* params) {
    // params->name may fill its 32 bytes without a terminator, and params is gone after this call.
    if (params == nullptr || !isPair(activity, event_type)) return -EINVAL;
    {
        std::lock_guard<std::mutex> lock(state().lock);
        state().extended.insert({activity, event_type});
    }
    return enable_activity_event(activity, event_type, report_latency_ns);
}

int get_current_activity(ar_context_event** events) {
    // One for each thread, so that no other query changes what a caller still reads.
    static thread_local ar_context_event snapshot;
    std::lock_guard<std::mutex> lock(state().lock);
    const activity_event& last = state().last;
    if (last.event_type == 0) return 0;
    snapshot = describe(last);
    *events = &snapshot;
    return 1;
}

int disable_activity_event(uint32_t activity, uint32_t event_type) {
    if (!isPair(activity, event_type)) return -EINVAL;
    std::lock_guard<std::mutex> lock(state().lock);
    state().latencies.erase({activity, event_type});
    state().extended.erase({activity, event_type});
    std::vector<activity_event> kept;
    for (const activity_event& event : state().held) {
        if (event.activity != activity || event.event_type != event_type) kept.push_back(event);
    }
    state().held.swap(kept);
    return 0;
}

int flush() {
    // Only tells the worker: a callback from here would come back into whoever called flush.
    std::lock_guard<std::mutex> lock(state().lock);
    state().deadline = Clock::now();
    state().changed.notify_one();
    return 0;
}

const activity_interface sActivityInterface = {
        register_activity_callbacks,
        get_supported_activities_list,
        enable_activity_event,
        enable_activity_event_extend,
        get_current_activity,
        disable_activity_event,
        flush,
};

const activity_interface* get_activity_interface(activity_recognition_device*) {
    return &sActivityInterface;
}

const environment_interface* get_environment_interface(activity_recognition_device*) {
    return nullptr;  // no support for environments
}

int close_device(hw_device_t*) {
    {
        std::lock_guard<std::mutex> lock(state().lock);
        if (!state().open) return -EINVAL;
        state().open = false;
        state().changed.notify_one();
    }
    state().worker.join();
    return 0;
}

activity_recognition_device sDevice;

int open_device(const hw_module_t* module, const char* id, hw_device_t** device) {
    if (strcmp(id, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE) != 0) return -EINVAL;
    std::lock_guard<std::mutex> lock(state().lock);
    if (state().open) return -EBUSY;
    sDevice.common.tag = HARDWARE_DEVICE_TAG;
    sDevice.common.module = const_cast<hw_module_t*>(module);
    sDevice.common.close = close_device;
    sDevice.get_activity_interface = get_activity_interface;
    sDevice.get_environment_interface = get_environment_interface;
    state().callbacks = nullptr;
    state().latencies.clear();
    state().extended.clear();
    state().held.clear();
    state().open = true;
    state().worker = std::thread(work);
    *device = &sDevice.common;
    return 0;
}

hw_module_methods_t sMethods = {open_device};

}  // namespace

extern "C" {
activity_recognition_module HAL_MODULE_INFO_SYM = {{
        HARDWARE_MODULE_TAG,
        HARDWARE_MODULE_API_VERSION(1, 0),
        HARDWARE_HAL_API_VERSION,
        ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID,
        "Minimal activity recognition",
        "you",
        &sMethods,
        nullptr,
        {},
}};
}
