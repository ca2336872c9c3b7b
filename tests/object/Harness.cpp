#include "Harness.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <new>

#include <android/log.h>
#include <hardware/hardware.h>

// Only the library's objects are allocated this way.
namespace {
std::atomic<bool> gNoMemory{false};
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return gNoMemory ? nullptr : ::operator new(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return gNoMemory ? nullptr : ::operator new[](size);
}

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {

Module module;
Device device;

namespace {

std::mutex gLock;  // of the log and the journal
Lines gLog;
std::set<std::string> gEverLogged;
Lines gJournal;

void Capture(const __android_logger_data* data, const char* message) {
    const char level = "??VDIWEF"[data->priority];
    std::lock_guard<std::mutex> lock(gLock);
    gLog.push_back(std::string(1, level) + " " + data->tag + ": " + message);
    gEverLogged.insert(gLog.back());
}

std::string Text(const other_params* params) {
    std::string text = " [";
    for (double p : params->params) text += std::to_string(p).substr(0, 3) + " ";
    return text + "'" + std::string(params->name, strnlen(params->name, sizeof(params->name))) +
           "']";
}

int Called(const std::string& slot, const std::string& arguments) {
    {
        std::lock_guard<std::mutex> lock(gLock);
        module.calls.push_back(slot + arguments);
    }
    if (module.inside) module.inside();
    const auto result = module.results.find(slot);
    return result == module.results.end() ? 0 : result->second;
}

template <typename... T>
std::string Numbers(T... values) {
    std::string text;
    ((text += " " + std::to_string(values)), ...);
    return text;
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
    *events = module.nullArrays ? nullptr : module.current.data();
    return Count(module.current.size());
}

int Open(const hw_module_t*, const char* id, hw_device_t** opened) {
    static activity_recognition_device native = {};
    EXPECT_STREQ(id, "activity_recognition_hidl");
    if (device.open != 0) return device.open;
    ++device.opened;
    native.common.close = [](hw_device_t*) { return ++device.closed; };
    native.get_activity_interface = [](activity_recognition_device*) { return device.activity; };
    native.get_environment_interface = [](activity_recognition_device*) {
        return device.environment;
    };
    *opened = &native.common;
    return 0;
}

}  // namespace

extern const activity_interface kActivityTable = {
        [](const activity_callbacks* cb) { module.activity = cb; },
        GetNames,
        [](uint32_t activity, uint32_t event, int64_t latency) {
            return Called("enable", Numbers(activity, event, latency));
        },
        [](uint32_t activity, uint32_t event, int64_t latency, const other_params* params) {
            return Called("extend", Numbers(activity, event, latency) + Text(params));
        },
        GetCurrent,
        [](uint32_t activity, uint32_t event) {
            return Called("disable", Numbers(activity, event));
        },
        [] { return Called("flush", ""); },
};

extern const environment_interface kEnvironmentTable = {
        [](const environment_callbacks* cb) { module.environment = cb; },
        GetNames,
        [](uint32_t environment, const other_params* params) {
            return Called("init", Numbers(environment) + Text(params));
        },
        [](uint32_t environment, const other_params* params) {
            return Called("exit", Numbers(environment) + Text(params));
        },
        [](uint32_t environment, uint32_t event, int64_t latency, const other_params* params) {
            return Called("enable", Numbers(environment, event, latency) + Text(params));
        },
        [](uint32_t environment, uint32_t event) {
            return Called("disable", Numbers(environment, event));
        },
        GetCurrent,
};

Lines TakeLog() {
    std::lock_guard<std::mutex> lock(gLock);
    return std::exchange(gLog, {});
}
const std::set<std::string>& EverLogged() {
    return gEverLogged;
}
Lines TakeJournal() {
    std::lock_guard<std::mutex> lock(gLock);
    return std::exchange(gJournal, {});
}
void Note(const std::string& line) {
    std::lock_guard<std::mutex> lock(gLock);
    gJournal.push_back(line);
}

WithoutMemory::WithoutMemory() {
    gNoMemory = true;
}
WithoutMemory::~WithoutMemory() {
    gNoMemory = false;
}

std::string Text(const ActivityEvent& e) {
    return "(" + std::to_string(e.eventType) + "," + std::to_string(e.activity) + "," +
           std::to_string(e.timestamp) + ")";
}
std::string Text(const ActivityEventV1_1& e) {
    return "(" + std::to_string(e.eventType) + "," + std::to_string(e.activity) + "," +
           std::to_string(e.timestamp) + "," + std::to_string(e.extra) + ")";
}
std::string Text(const ActivityEventExtend& e) {
    return "(" + std::to_string(e.eventType) + "," + std::to_string(e.activity) + "," +
           std::to_string(e.timestamp) + ",v" + std::to_string(e.value) + "," +
           std::string(e.name) + ")";
}
std::string Text(const ActivityEventExtendV1_1& e) {
    return "(" + std::to_string(e.eventType) + "," + std::to_string(e.activity) + "," +
           std::to_string(e.timestamp) + ",e" + std::to_string(e.extra) + ",v" +
           std::to_string(e.value) + "," + std::string(e.name) + ")";
}

OtherParams Params(double p0, double p1, double p2, double p3, const std::string& name) {
    OtherParams params;
    params.params[0] = p0;
    params.params[1] = p1;
    params.params[2] = p2;
    params.params[3] = p3;
    params.name = name;
    return params;
}

ar_context_event Context(uint32_t type, uint32_t activity, int64_t timestamp, uint32_t extra,
                         uint32_t value, const std::string& name) {
    ar_context_event event = {type, activity, timestamp, extra, value, {1, 2, 3, ~0ull}, {}};
    memcpy(event.name, name.data(), name.size());
    return event;
}

// Callbacks first, then the recipients, which hold the object.
void ActivityInterfaceTestPeer::clear() {
    clientsV1_1().clear();
    clientsV1_0().clear();
    requests().clear();
    barriers().clear();
    lastEvents().clear();
    reported().clear();
}
void EnvironmentInterfaceTestPeer::clear() {
    clientsV1_1().clear();
    clientsV1_0().clear();
}

void ObjectTest::SetUp() {
    __android_log_set_logger(Capture);
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    module = {};
    device = {};
    Act::clear();
    Env::clear();
    Make(&kActivityTable, &kEnvironmentTable);
}

void ObjectTest::TearDown() {
    Make(nullptr, nullptr);
    act = nullptr;
    env = nullptr;
}

void ObjectTest::Make(const activity_interface* activity,
                      const environment_interface* environment) {
    if (act != nullptr) {
        Act::sharedRecipient(*act) = nullptr;
        Act::recipients(*act).clear();
    }
    if (env != nullptr) Env::sharedRecipient(*env) = nullptr;
    act = nullptr;
    env = nullptr;
    act = new ActivityInterface(activity);
    env = new EnvironmentInterface(environment);
    TakeLog();
    TakeJournal();
}

int32_t ObjectTest::enable(int pid, uint32_t activity, uint32_t event, int64_t latencyNs) {
    As caller(pid);
    return act->enableActivityEvent(activity, event, latencyNs);
}
int32_t ObjectTest::enableExtended(int pid, uint32_t activity, uint32_t event, int64_t latencyNs,
                                   const OtherParams& params) {
    As caller(pid);
    return act->enableActivityEventExtend(activity, event, latencyNs, params);
}
int32_t ObjectTest::disable(int pid, uint32_t activity, uint32_t event) {
    As caller(pid);
    return act->disableActivityEvent(activity, event);
}

}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation

// Stands before the loader's own.
extern "C" int hw_get_module(const char* id, const hw_module_t** found) {
    namespace ar = vendor::zaltho::hardware::activity_recognition::V1_1::implementation;
    static hw_module_methods_t methods = {ar::Open};
    static hw_module_t native = {};
    EXPECT_STREQ(id, "activity_recognition");
    native.methods = &methods;
    *found = &native;
    return ar::device.getModule;
}
