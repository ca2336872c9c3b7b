// A module that keeps all rules but the one that the environment variable BREAK names.

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
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

struct State {
    std::mutex lock;
    std::mutex delivery;  // held during callbacks
    std::condition_variable changed;
    bool running = false;
    std::thread worker;
    const activity_callbacks* callbacks = nullptr;
    std::set<std::pair<uint32_t, uint32_t>> enabled;
    const other_params* kept = nullptr;
    std::atomic<int> callers{0};
    int64_t time = 1;
};
State& s = *new State;

void deliver(std::unique_lock<std::mutex>& lock, bool withExtended) {
    if (s.kept != nullptr && s.kept->params[0] == 3) return;
    auto pairs = s.enabled;
    if (breaks("event.enabled") && !pairs.empty()) pairs.insert({1, 2});
    std::vector<activity_event> plain;
    std::vector<ar_context_event> extended;
    for (const auto& pair : pairs) {
        const uint32_t activity = pair.first + (breaks("event.activity") ? 2 : 0);
        const uint32_t type = breaks("event.type") ? 3 : pair.second;
        const int64_t time = breaks("event.time") ? 1000000 - ++s.time : ++s.time;
        plain.push_back({type, activity, time, 0, {}});
        ar_context_event event = {type, activity, time, 0, 0, {}, "text"};
        if (breaks("event.name")) memset(event.name, 'n', sizeof(event.name));
        extended.push_back(event);
    }
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
        deliver(lock, true);
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

int enable(uint32_t activity, uint32_t event_type, int64_t) {
    // A module that can take one caller only.
    if (breaks("threads.calls")) {
        const bool alone = s.callers.fetch_add(1) == 0;
        std::this_thread::yield();
        s.callers.fetch_sub(1);
        if (!alone) return -EBUSY;
    }
    std::lock_guard<std::mutex> lock(s.lock);
    s.enabled.insert({activity, event_type});
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
    for (ar_context_event& event : own) event = {1, 0, 1, 0, 0, {}, "still"};
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
    std::lock_guard<std::mutex> lock(s.lock);
    if (!breaks("event.disabled")) s.enabled.erase({activity, event_type});
    return 0;
}

int flush() {
    if (breaks("threads.blocked") && !sIsWorker) std::lock_guard<std::mutex> delivered(s.delivery);
    std::unique_lock<std::mutex> lock(s.lock);
    if (breaks("reentry.nested") && sIsWorker) deliver(lock, false);
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
        s.changed.notify_one();
    }
    s.worker.join();
    return breaks("device.close") ? -EIO : 0;
}

int open_device(const hw_module_t*, const char* id, hw_device_t** device) {
    if (breaks("module.open")) return -ENODEV;
    const bool known = strcmp(id, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE) == 0;
    if (!known && !breaks("device.name")) return -EINVAL;
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
