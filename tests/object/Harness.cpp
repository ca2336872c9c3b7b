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
    const double* p = params->params;
    const std::string name(params->name, strnlen(params->name, sizeof(params->name)));
    return "[" + Joined(" ", p[0], p[1], p[2], p[3], "'" + name + "'") + "]";
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

int Count(size_t size) {
    return module.countOverride == INT32_MIN ? int(size) : module.countOverride;
}

int GetNames(char*** list) {
    static std::vector<char*> pointers;
    pointers.clear();
    for (std::string& name : module.names) pointers.push_back(name.data());
    *list = module.nullArrays ? nullptr : pointers.data();
    return Count(module.names.size());
}

int GetCurrent(ar_context_event** events) {
    if (module.inside) module.inside();
    *events = module.nullArrays ? nullptr : module.current.data();
    return Count(module.current.size());
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

void ObjectTest::make(const activity_interface* activity,
                      const environment_interface* environment) {
    drop();
    __android_log_set_logger(Capture);
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    module = {};
    Act::requests().clear();
    Act::barriers().clear();
    Act::lastEvents().clear();
    Act::reported().clear();
    act = new ActivityInterface(activity);
    env = new EnvironmentInterface(environment);
    TakeLog();
    TakeJournal();
}

void ObjectTest::drop() {
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
