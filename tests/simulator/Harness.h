// The simulator as the service meets it: a library that is loaded, opened and called by its tables.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zaltho/activity_recognition_native.h>

// One call of a callback. Plain records carry no payload.
struct Batch {
    char kind;  // 'p' plain, 'x' extended, 'e' environment
    std::vector<ar_context_event> events;
    int64_t arrivedNs;  // monotonic, the simulator's clock at speed 1
};

class SimulatorTest : public testing::Test {
  protected:
    SimulatorTest();
    ~SimulatorTest() override;

    // Sets AR_SIMULATOR_<name>.
    void set(const std::string& name, const std::string& value);
    // Writes the scenario, to be played by the next open.
    void setScenario(const std::string& text);
    std::string scenarioPath() const { return mFolder + "/test.scn"; }
    // With a control FIFO and a trace. Registers the callbacks and asks for the tables.
    void start();
    int open();
    int close() { return device->common.close(&device->common); }
    // One line to the control FIFO.
    void say(const std::string& line);
    std::vector<std::string> traceLines() const;
    std::vector<std::string> errors() const;

    // Of environments: initialises and enables.
    int enableEnvironment(uint32_t environment, uint32_t type, int64_t latencyNs = 0);

    // The next batch, waited for.
    Batch next();
    // Runs inside the next callback.
    void inNextCallback(std::function<void()> action);

    const hw_module_t* module = nullptr;
    activity_recognition_device* device = nullptr;
    const activity_interface* activity = nullptr;
    const environment_interface* environment = nullptr;

  private:
    std::string mFolder;
};
