// SPDX-License-Identifier: Apache-2.0
// The module record, its device and the two tables.

#include <errno.h>
#include <string.h>

#include <zaltho/activity_recognition_native.h>

#include "Simulator.h"

namespace {

using ar_simulator::kActivity;
using ar_simulator::kEnvironment;
using ar_simulator::Kind;
using ar_simulator::Simulator;

const activity_interface sActivityInterface = {
        [](const activity_callbacks* callbacks) {
            Simulator::instance().registerActivityCallbacks(callbacks);
        },
        [](char*** list) { return Simulator::instance().supportedList(kActivity, list); },
        [](uint32_t activity, uint32_t eventType, int64_t latencyNs) {
            return Simulator::instance().enable(Kind::kPlain, activity, eventType, latencyNs,
                                                nullptr);
        },
        [](uint32_t activity, uint32_t eventType, int64_t latencyNs, const other_params* params) {
            return Simulator::instance().enable(Kind::kExtended, activity, eventType, latencyNs,
                                                params);
        },
        [](ar_context_event** events) { return Simulator::instance().current(kActivity, events); },
        [](uint32_t activity, uint32_t eventType) {
            return Simulator::instance().disable(kActivity, activity, eventType);
        },
        []() { return Simulator::instance().flush(); },
};

const environment_interface sEnvironmentInterface = {
        [](const environment_callbacks* callbacks) {
            Simulator::instance().registerEnvironmentCallbacks(callbacks);
        },
        [](char*** list) { return Simulator::instance().supportedList(kEnvironment, list); },
        [](uint32_t environment, const other_params* params) {
            return Simulator::instance().initEnvironment(environment, params);
        },
        [](uint32_t environment, const other_params* params) {
            return Simulator::instance().exitEnvironment(environment, params);
        },
        [](uint32_t environment, uint32_t eventType, int64_t latencyNs,
           const other_params* params) {
            return Simulator::instance().enable(Kind::kEnvironment, environment, eventType,
                                                latencyNs, params);
        },
        [](uint32_t environment, uint32_t eventType) {
            return Simulator::instance().disable(kEnvironment, environment, eventType);
        },
        [](ar_context_event** events) {
            return Simulator::instance().current(kEnvironment, events);
        },
};

const activity_interface* getActivityInterface(activity_recognition_device*) {
    return Simulator::instance().offers(kActivity) ? &sActivityInterface : nullptr;
}

const environment_interface* getEnvironmentInterface(activity_recognition_device*) {
    return Simulator::instance().offers(kEnvironment) ? &sEnvironmentInterface : nullptr;
}

int closeDevice(hw_device_t*) {
    return Simulator::instance().close();
}

// One device, which can be open once at a time.
activity_recognition_device sDevice;

int openDevice(const hw_module_t* module, const char* id, hw_device_t** device) {
    if (id == nullptr || device == nullptr ||
        strcmp(id, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE) != 0) {
        return -EINVAL;
    }
    *device = nullptr;
    const int result = Simulator::instance().open();
    if (result != 0) return result;
    sDevice.common.tag = HARDWARE_DEVICE_TAG;
    sDevice.common.version = HARDWARE_MAKE_API_VERSION(1, 0);
    sDevice.common.module = const_cast<hw_module_t*>(module);
    sDevice.common.close = closeDevice;
    sDevice.get_activity_interface = getActivityInterface;
    sDevice.get_environment_interface = getEnvironmentInterface;
    *device = &sDevice.common;
    return 0;
}

hw_module_methods_t sMethods = {openDevice};

}  // namespace

extern "C" {
__attribute__((visibility("default"))) activity_recognition_module HAL_MODULE_INFO_SYM = {{
        HARDWARE_MODULE_TAG,
        HARDWARE_MODULE_API_VERSION(1, 0),
        HARDWARE_HAL_API_VERSION,
        ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID,
        "Activity recognition simulator",
        "Zaltho",
        &sMethods,
        nullptr,
        {},
}};
}
