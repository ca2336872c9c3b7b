// SPDX-License-Identifier: Apache-2.0
#include "Harness.h"

#include <string.h>

#include <mutex>
#include <new>

#include <android/log.h>
#include <hardware/hardware.h>

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {

namespace {

std::mutex gLock;  // of everything that is noted, the module's calls too
Lines gLog;
Lines gJournal;

Lines Take(Lines& lines) {
    std::lock_guard<std::mutex> lock(gLock);
    return std::exchange(lines, {});
}

void Capture(const __android_logger_data* data, const char* message) {
    const char level = "??VDIWEF"[data->priority];
    std::lock_guard<std::mutex> lock(gLock);
    gLog.push_back(std::string(1, level) + " " + data->tag + ": " + message);
}

template <typename Number>
Number Shown(Number number) {
    return number;
}
std::string Shown(const other_params* params) {
    return Text(*params);
}

template <typename... T>
int Called(const char* slot, T... arguments) {
    {
        std::lock_guard<std::mutex> lock(gLock);
        module.calls.push_back(Joined(" ", slot, Shown(arguments)...));
    }
    if (module.inside) module.inside();
    const auto result = module.results.find(slot);
    return result == module.results.end() ? 0 : result->second;
}

// What is handed over is gone with the next.
int GetNames(char*** list) {
    static thread_local std::vector<std::unique_ptr<char[]>> names;
    static thread_local std::unique_ptr<char*[]> handed;
    names.clear();
    std::vector<char*> pointers;
    for (const std::string& name : module.names) {
        names.push_back(Exactly(std::vector<char>(name.c_str(), name.c_str() + name.size() + 1)));
        pointers.push_back(names.back().get());
    }
    handed = Exactly(pointers);
    *list = module.nullArrays ? nullptr : handed.get();
    return module.count(module.names.size());
}

int GetCurrent(ar_context_event** events) {
    if (module.inside) module.inside();
    static thread_local std::unique_ptr<ar_context_event[]> handed;
    handed = Exactly(module.current);
    *events = module.nullArrays ? nullptr : handed.get();
    return module.count(module.current.size());
}

int Open(const hw_module_t*, const char* id, hw_device_t** opened) {
    static activity_recognition_device native = {};
    native.common.close = [](hw_device_t*) { return Called("close"); };
    native.get_activity_interface = [](auto*) { return module.activityTable; };
    native.get_environment_interface = [](auto*) { return module.environmentTable; };
    *opened = &native.common;
    return Called("open", id);
}

}  // namespace

extern const activity_interface kActivityTable = {
        [](const activity_callbacks* callbacks) { module.activity = callbacks; },
        GetNames,
        [](auto... arguments) { return Called("enable", arguments...); },
        [](auto... arguments) { return Called("extend", arguments...); },
        GetCurrent,
        [](auto... arguments) { return Called("disable", arguments...); },
        [] { return Called("flush"); },
};

extern const environment_interface kEnvironmentTable = {
        [](const environment_callbacks* callbacks) { module.environment = callbacks; },
        GetNames,
        [](auto... arguments) { return Called("init", arguments...); },
        [](auto... arguments) { return Called("exit", arguments...); },
        [](auto... arguments) { return Called("enable", arguments...); },
        [](auto... arguments) { return Called("disable", arguments...); },
        GetCurrent,
};

Lines TakeLog() {
    return Take(gLog);
}
Lines TakeJournal() {
    return Take(gJournal);
}
void Note(const std::string& line) {
    std::lock_guard<std::mutex> lock(gLock);
    gJournal.push_back(line);
}

void Objects::make(const activity_interface* activity, const environment_interface* environment) {
    drop();
    __android_log_set_logger(Capture);
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    module = {};
    Act::forgetCounts();
    Env::forgetCounts();
    Act::requests().clear();
    Act::barriers().clear();
    Act::lastEvents().clear();
    Act::reported().clear();
    Act::forget();
    act = new ActivityInterface(activity);
    env = new EnvironmentInterface(environment);
    TakeLog();
    TakeJournal();
}

void Objects::drop() {
    if (act != nullptr) {  // which its recipients hold
        Act::sharedRecipient(*act) = nullptr;
        Act::recipients(*act).clear();
    }
    if (env != nullptr) Env::sharedRecipient(*env) = nullptr;
    act = nullptr;
    env = nullptr;
}

}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation

namespace ar = vendor::zaltho::hardware::activity_recognition::V1_1::implementation;

// Only the library's objects are allocated this way.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return ar::WithoutMemory::active ? nullptr : ::operator new(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return ar::WithoutMemory::active ? nullptr : ::operator new[](size);
}

// Stands before the loader's own.
extern "C" int hw_get_module(const char* id, const hw_module_t** found) {
    static hw_module_methods_t methods = {ar::Open};
    static hw_module_t native = {};
    native.methods = &methods;
    *found = &native;
    return ar::Called("find", id);
}
