// SPDX-License-Identifier: Apache-2.0
// A native module to start from: two activities, no environments, a timer in place of sensors. It
// reports at once, which keeps every latency; holding records back would save wake-ups.
#include <errno.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include <zaltho/activity_recognition_native.h>

namespace {

char sStill[] = "still", sWalking[] = "walking";
char* sNames[] = {sStill, sWalking};
constexpr uint32_t kActivities = 2;

std::mutex& sLock = *new std::mutex;  // never held during a callback, which may come back here
const activity_callbacks* sCallbacks;
bool sEnabled[kActivities][2];  // by activity, and event type less 1
activity_event sLast;
std::atomic<bool> sOpen{false};
std::thread& sWorker = *new std::thread;  // not destroyed: tables are called to the very end

// What your sensors tell goes here; this is a person who stops and goes on.
activity_event detect(uint32_t step) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    activity_event event = {};
    event.event_type = 1 + step % 2;
    event.activity = step / 2 % kActivities;
    event.timestamp = std::chrono::nanoseconds(now).count();
    return event;
}

ar_context_event extended(const activity_event& event) {
    ar_context_event record = {};
    record.event_type = event.event_type;
    record.activity = event.activity;
    record.timestamp = event.timestamp;
    strcpy(record.name, sNames[event.activity]);
    return record;
}

// The only thread that calls back.
void work() {
    for (uint32_t step = 0; sOpen; ++step) {
        const activity_event event = detect(step);
        const activity_callbacks* callbacks = nullptr;
        {
            std::lock_guard<std::mutex> guard(sLock);
            sLast = event;
            if (sEnabled[event.activity][event.event_type - 1]) callbacks = sCallbacks;
        }
        if (callbacks != nullptr) {
            callbacks->activity_changed(&event, 1);
            const ar_context_event record = extended(event);
            callbacks->activity_extend_changed(&record, 1);  // goes to all clients
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

int set(uint32_t activity, uint32_t eventType, bool enabled) {
    if (activity >= kActivities || (eventType != 1 && eventType != 2)) return -EINVAL;
    std::lock_guard<std::mutex> guard(sLock);
    sEnabled[activity][eventType - 1] = enabled;
    return 0;
}

const activity_interface sTable = {
        [](const activity_callbacks* callbacks) {
            std::lock_guard<std::mutex> guard(sLock);
            sCallbacks = callbacks;
        },
        [](char*** list) { return *list = sNames, int(kActivities); },
        [](uint32_t activity, uint32_t eventType, int64_t) {
            return set(activity, eventType, true);
        },
        // params->name may fill its 32 bytes without a NUL, and params is gone after this call.
        [](uint32_t activity, uint32_t eventType, int64_t, const other_params*) {
            return set(activity, eventType, true);
        },
        [](ar_context_event** events) {
            // One for each thread, so that no other query changes what a caller still reads.
            static thread_local ar_context_event snapshot;
            std::lock_guard<std::mutex> guard(sLock);
            if (sLast.event_type == 0) return 0;
            snapshot = extended(sLast);
            *events = &snapshot;
            return 1;
        },
        [](uint32_t activity, uint32_t eventType) { return set(activity, eventType, false); },
        [] { return 0; },  // flush: nothing is held; whoever holds records wakes his thread here
};

int closeDevice(hw_device_t*) {
    if (!sOpen.exchange(false)) return -EINVAL;
    sWorker.join();  // no callback begins after this
    return 0;
}

int openDevice(const hw_module_t* module, const char* id, hw_device_t** device) {
    static activity_recognition_device sDevice;
    if (strcmp(id, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE) != 0) return -EINVAL;
    if (sOpen.exchange(true)) return -EBUSY;
    sDevice.common.tag = HARDWARE_DEVICE_TAG;
    sDevice.common.module = const_cast<hw_module_t*>(module);
    sDevice.common.close = closeDevice;
    sDevice.get_activity_interface = [](activity_recognition_device*) { return &sTable; };
    sDevice.get_environment_interface = [](activity_recognition_device*) {
        return static_cast<const environment_interface*>(nullptr);  // not supported
    };
    std::lock_guard<std::mutex> guard(sLock);
    memset(sEnabled, 0, sizeof(sEnabled));
    sWorker = std::thread(work);
    *device = &sDevice.common;
    return 0;
}

hw_module_methods_t sMethods = {openDevice};

}  // namespace

extern "C" {
activity_recognition_module HAL_MODULE_INFO_SYM = {{HARDWARE_MODULE_TAG,
                                                    HARDWARE_MODULE_API_VERSION(1, 0),
                                                    HARDWARE_HAL_API_VERSION,
                                                    ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID,
                                                    "An activity recognition module",
                                                    "you",
                                                    &sMethods,
                                                    nullptr,
                                                    {}}};
}
