#include "Harness.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>

#include <android/log.h>
#include <utils/Timers.h>

namespace {

const char* const kVariables[] = {"SCENARIO", "SPEED", "LOOP", "CONTROL", "TRACE"};

struct Inbox {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<Batch> batches;
    std::vector<std::string> errors;
    std::function<void()> action;
};
Inbox& inbox = *new Inbox;

void receive(Batch batch) {
    std::function<void()> action;
    {
        std::lock_guard<std::mutex> lock(inbox.lock);
        inbox.batches.push_back(std::move(batch));
        inbox.changed.notify_all();
        action.swap(inbox.action);
    }
    if (action) action();
}

const activity_callbacks kActivityCallbacks = {
        [](const activity_event* events, int count) {
            Batch batch{'p', {}, systemTime(SYSTEM_TIME_MONOTONIC)};
            for (int i = 0; i < count; ++i) {
                const activity_event& e = events[i];
                batch.events.push_back({e.event_type, e.activity, e.timestamp, e.extra, 0, {}, ""});
            }
            receive(std::move(batch));
        },
        [](const ar_context_event* events, int count) {
            receive({'x', {events, events + count}, systemTime(SYSTEM_TIME_MONOTONIC)});
        },
};
const environment_callbacks kEnvironmentCallbacks = {
        [](const ar_context_event* events, int count) {
            receive({'e', {events, events + count}, systemTime(SYSTEM_TIME_MONOTONIC)});
        },
};

void log(const __android_logger_data* data, const char* message) {
    if (data->priority < ANDROID_LOG_ERROR) return;
    std::lock_guard<std::mutex> lock(inbox.lock);
    inbox.errors.push_back(std::string(data->tag) + " " + message);
}

}  // namespace

SimulatorTest::SimulatorTest() {
    __android_log_set_logger(log);
    char folder[] = "/tmp/simulator_test.XXXXXX";
    mFolder = mkdtemp(folder);
    for (const char* name : kVariables) unsetenv((std::string("AR_SIMULATOR_") + name).c_str());
    static void* const library = dlopen(SIMULATOR, RTLD_NOW);
    if (library == nullptr) throw std::runtime_error(dlerror());
    module = static_cast<const hw_module_t*>(dlsym(library, HAL_MODULE_INFO_SYM_AS_STR));
    std::lock_guard<std::mutex> lock(inbox.lock);
    inbox.batches.clear();
    inbox.errors.clear();
}

SimulatorTest::~SimulatorTest() {
    // Refused when the test did it already.
    if (device != nullptr) device->common.close(&device->common);
    std::filesystem::remove_all(mFolder);
}

void SimulatorTest::set(const std::string& name, const std::string& value) {
    setenv(("AR_SIMULATOR_" + name).c_str(), value.c_str(), 1);
}

void SimulatorTest::setScenario(const std::string& text) {
    std::ofstream(scenarioPath()) << text;
    set("SCENARIO", scenarioPath());
}

int SimulatorTest::open() {
    hw_device_t* opened = nullptr;
    const int result =
            module->methods->open(module, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE, &opened);
    if (result == 0) device = reinterpret_cast<activity_recognition_device*>(opened);
    return result;
}

void SimulatorTest::start() {
    mkfifo((mFolder + "/control").c_str(), 0600);
    set("CONTROL", mFolder + "/control");
    set("TRACE", mFolder + "/trace");
    {
        // What came before the last close is nobody's any more.
        std::lock_guard<std::mutex> lock(inbox.lock);
        inbox.batches.clear();
    }
    ASSERT_EQ(0, open()) << errors().at(0);
    activity = device->get_activity_interface(device);
    environment = device->get_environment_interface(device);
    activity->register_activity_callbacks(&kActivityCallbacks);
    environment->register_environment_callbacks(&kEnvironmentCallbacks);
}

void SimulatorTest::say(const std::string& line) {
    std::ofstream(mFolder + "/control") << line << "\n";
}

std::vector<std::string> SimulatorTest::traceLines() const {
    std::vector<std::string> lines;
    std::ifstream file(mFolder + "/trace");
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> SimulatorTest::errors() const {
    std::lock_guard<std::mutex> lock(inbox.lock);
    return inbox.errors;
}

int SimulatorTest::enableEnvironment(uint32_t number, uint32_t type, int64_t latencyNs) {
    const other_params params = {};
    const int result = environment->init_environment(number, &params);
    return result != 0 ? result : environment->enable_environment(number, type, latencyNs, &params);
}

Batch SimulatorTest::next() {
    std::unique_lock<std::mutex> lock(inbox.lock);
    if (!inbox.changed.wait_for(lock, std::chrono::seconds(20),
                                [] { return !inbox.batches.empty(); })) {
        ADD_FAILURE() << "no batch came";
        return {};
    }
    Batch batch = std::move(inbox.batches.front());
    inbox.batches.pop_front();
    return batch;
}

void SimulatorTest::inNextCallback(std::function<void()> action) {
    std::lock_guard<std::mutex> lock(inbox.lock);
    inbox.action = std::move(action);
}
