// SPDX-License-Identifier: Apache-2.0
// The native module of the process benchmark: accepts everything, and sends a full batch whenever
// the service's standard input tells it to. The service's standard output has the times.
#include <zaltho/activity_recognition_native.h>

#include <thread>

#include "Peers.h"

namespace {

void serve(const activity_callbacks* callbacks) {
    std::vector<activity_event> events;
    for (const bench::Record& record : bench::batch()) {
        events.push_back({record.eventType, record.activity, record.timestamp, record.extra, {}});
    }
    bench::serve({}, [&] { callbacks->activity_changed(events.data(), int(events.size())); });
}

const activity_interface kActivities = {
        [](const activity_callbacks* callbacks) { std::thread(serve, callbacks).detach(); },
        [](char***) { return 0; },
        [](uint32_t, uint32_t, int64_t) { return 0; },
        [](uint32_t, uint32_t, int64_t, const other_params*) { return 0; },
        [](ar_context_event**) { return 0; },
        [](uint32_t, uint32_t) { return 0; },
        [] { return 0; },
};

int openDevice(const hw_module_t*, const char*, hw_device_t** opened) {
    static activity_recognition_device device = {};
    device.common.close = [](hw_device_t*) { return 0; };
    device.get_activity_interface = [](activity_recognition_device*) { return &kActivities; };
    device.get_environment_interface =
            [](activity_recognition_device*) -> const environment_interface* { return nullptr; };
    *opened = &device.common;
    return 0;
}

hw_module_methods_t sMethods = {openDevice};

}  // namespace

extern "C" {
activity_recognition_module HAL_MODULE_INFO_SYM = {{
        HARDWARE_MODULE_TAG,
        HARDWARE_MODULE_API_VERSION(1, 0),
        HARDWARE_HAL_API_VERSION,
        ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID,
        "Sends batches when told to",
        "",
        &sMethods,
        nullptr,
        {},
}};
}
