// SPDX-License-Identifier: Apache-2.0
// The simulator as the service meets it: a library that is loaded, opened and called by its tables.
#pragma once

#include <dlfcn.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <android/log.h>
#include <gmock/gmock.h>

#include <utils/Timers.h>
#include <zaltho/activity_recognition_native.h>

constexpr int64_t kMs = 1000000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int64_t kNoWake = 604800 * kSecond;

// One call of a callback. Plain records carry no payload.
struct Batch {
    std::vector<ar_context_event> events;
    int64_t arrivedNs;  // monotonic
};

class SimulatorTest : public testing::Test {
  protected:
    SimulatorTest() {
        mkfifo(control.c_str(), 0600);
        for (const char* variable : {"SCENARIO", "SPEED", "LOOP", "CONTROL", "TRACE"}) {
            set(variable, "");
        }
        set("SPEED", "step");
        sTest = this;
        __android_log_set_logger([](const __android_logger_data* data, const char* message) {
            if (data->priority < ANDROID_LOG_ERROR) return;
            sTest->errors.push_back(std::string(data->tag) + " " + message);
        });
        static void* const library = dlopen(SIMULATOR, RTLD_NOW);
        if (library == nullptr) throw std::runtime_error(dlerror());
        module = static_cast<const hw_module_t*>(dlsym(library, HAL_MODULE_INFO_SYM_AS_STR));
    }
    ~SimulatorTest() override {
        if (device != nullptr) close();  // refused when the test did it already
        std::filesystem::remove_all(folder);
    }

    // Sets AR_SIMULATOR_<name>.
    void set(const std::string& name, const std::string& value) {
        setenv(("AR_SIMULATOR_" + name).c_str(), value.c_str(), 1);
    }
    // Writes the scenario, to be played by the next open.
    void setScenario(const std::string& text) {
        std::ofstream(scenario) << text;
        set("SCENARIO", scenario);
    }
    int open() {
        hw_device_t* opened = nullptr;
        const int result =
                module->methods->open(module, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE, &opened);
        if (result == 0) device = reinterpret_cast<activity_recognition_device*>(opened);
        return result;
    }
    int close() { return device->common.close(&device->common); }
    // Opens with a control FIFO and a trace, asks for the tables and registers the callbacks.
    void start() {
        static const activity_callbacks activityCallbacks = {receivePlain, receive};
        static const environment_callbacks environmentCallbacks = {receive};
        set("CONTROL", control);
        set("TRACE", trace);
        {
            // What came before the last close is nobody's any more.
            std::lock_guard<std::mutex> lock(mLock);
            mBatches.clear();
        }
        ASSERT_EQ(0, open()) << errors.at(0);
        activity = device->get_activity_interface(device);
        environment = device->get_environment_interface(device);
        activity->register_activity_callbacks(&activityCallbacks);
        environment->register_environment_callbacks(&environmentCallbacks);
    }
    // One line to the control FIFO.
    void say(const std::string& line) { std::ofstream(control) << line << "\n"; }
    // The module's clock when it has done what it was told. Nothing else is to come before.
    int64_t nowNs() {
        say("activity driving 2 batch=1");
        const Batch batch = next();
        EXPECT_EQ(4u, batch.events.at(0).activity);
        return batch.events[0].timestamp;
    }

    // Initialises, too.
    int enableEnvironment(uint32_t number, uint32_t type, int64_t latencyNs = 0) {
        const int result = environment->init_environment(number, &params);
        if (result != 0) return result;
        return environment->enable_environment(number, type, latencyNs, &params);
    }
    // The next batch, waited for.
    Batch next() {
        std::unique_lock<std::mutex> lock(mLock);
        const auto some = [this] { return !mBatches.empty(); };
        if (!mChanged.wait_for(lock, std::chrono::seconds(20), some)) {
            throw std::runtime_error("no batch came");
        }
        Batch batch = std::move(mBatches.front());
        mBatches.pop_front();
        return batch;
    }

    const std::string folder = [] {
        char name[] = "/tmp/simulator_test.XXXXXX";
        return std::string(mkdtemp(name));
    }();
    const std::string scenario = folder + "/test.scn", control = folder + "/control",
                      trace = folder + "/trace";
    std::vector<std::string> errors;   // in the log
    std::function<void()> inCallback;  // to be set before start()
    const hw_module_t* module = nullptr;
    activity_recognition_device* device = nullptr;
    const activity_interface* activity = nullptr;
    const environment_interface* environment = nullptr;
    const other_params params = {};

  private:
    static void receive(const ar_context_event* events, int count) {
        {
            std::lock_guard<std::mutex> lock(sTest->mLock);
            sTest->mBatches.push_back(
                    {{events, events + count}, systemTime(SYSTEM_TIME_MONOTONIC)});
            sTest->mChanged.notify_all();
        }
        if (sTest->inCallback) sTest->inCallback();
    }
    static void receivePlain(const activity_event* events, int count) {
        std::vector<ar_context_event> whole;
        for (const activity_event* e = events; e != events + count; ++e) {
            whole.push_back({e->event_type, e->activity, e->timestamp, e->extra, 0, {}, ""});
        }
        receive(whole.data(), count);
    }

    static inline SimulatorTest* sTest = nullptr;
    std::mutex mLock;
    std::condition_variable mChanged;
    std::deque<Batch> mBatches;
};
