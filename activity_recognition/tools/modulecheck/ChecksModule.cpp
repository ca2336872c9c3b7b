// SPDX-License-Identifier: Apache-2.0
#include <thread>

#include <fmt/format.h>

#include "Checks.h"
#include "Subject.h"

namespace modulecheck {

void checkModule(Probe& probe) {
    Subject subject;
    if (!subject.load(probe) || !subject.open(probe)) return;
    hw_device_t& device = subject.device->common;
    probe.exercised("device.tag");
    if (device.tag != HARDWARE_DEVICE_TAG) {
        probe.finding("device.tag", fmt::format("{:#010x}", device.tag));
    }
    // As the service does when no client ever asks for an interface.
    probe.stage("device.close", "close");
    probe.exercised("device.close");
    if (device.close == nullptr) {
        probe.finding("device.close", "close is NULL");
    } else if (const int result = device.close(&device); result != 0) {
        probe.finding("device.close", fmt::format("result {}", result));
    }
}

void checkNames(Probe& probe) {
    Subject subject;
    if (!subject.load(probe)) return;
    for (const char* name : {"activity_recognition", "activity_recognition_hidl2", ""}) {
        probe.stage("device.name", fmt::format("opening a device named \"{}\"", name));
        hw_device_t* device = nullptr;
        const int result = subject.module->methods->open(subject.module, name, &device);
        probe.exercised("device.name");
        if (result == 0) {
            probe.finding("device.name", fmt::format("\"{}\" was opened", name));
            if (device != nullptr && device->close != nullptr) device->close(device);
        }
    }
}

void checkClosing(Probe& probe) {
    Subject subject;
    if (!subject.start(probe) || subject.device->common.close == nullptr) return;
    const Calls calls{probe, subject};
    probe.stage("call.results", "enabling everything");
    calls.enableAll(0);
    Recorder& recorder = Recorder::instance();
    const bool lively = recorder.waitForBatch(0, probe.options.listen);

    probe.stage("device.close", "close with everything enabled");
    const int result = subject.device->common.close(&subject.device->common);
    recorder.didClose();
    if (result != 0) probe.finding("device.close", fmt::format("result {}", result));

    // The service's objects, and so the calls of clients, outlive the device.
    probe.stage("close.tables", "calling the tables after close");
    char** list = nullptr;
    ar_context_event* events = nullptr;
    if (subject.activity != nullptr) {
        subject.activity->get_supported_activities_list(&list);
        subject.activity->get_current_activity(&events);
        subject.activity->disable_activity_event(0, 1);
        subject.activity->flush();
    }
    if (subject.environment != nullptr) {
        subject.environment->get_supported_environments_list(&list);
        subject.environment->get_current_environment(&events);
        subject.environment->disable_environment(0, 1);
    }
    probe.exercised("close.tables");

    probe.stage("close.silent", "waiting after close");
    if (lively) probe.exercised("close.silent");
    recorder.waitForBatch(recorder.batches(), probe.options.listen / 2);
}

}  // namespace modulecheck
