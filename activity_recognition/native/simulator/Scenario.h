// SPDX-License-Identifier: Apache-2.0
// A scenario file, read into memory. The format is described in docs/scenarios.md.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include <zaltho/activity_recognition_native.h>

namespace ar_simulator {

// The first three are the kinds of records, one per callback.
enum class Kind { kPlain, kExtended, kEnvironment, kWait, kAnswer };
constexpr int kRecordKinds = 3;

constexpr int64_t kNsPerSecond = 1000000000;

constexpr int kHeld = -1;

// What no good module does.
struct Fault {
    // Of a record: handed over so often in one call, at once, enabled or not; kHeld: like any
    // other.
    int batch = kHeld;
    int threads = 1;            // that hand it over, at the same time
    bool withoutType = false;   // event type 0
    bool unterminated = false;  // the name fills its field
    // Of a record: inside whose next call it is handed over, empty for the module's thread. Of an
    // answer: whose next calls get it.
    std::string slot;
    int answer = 0;
    int calls = 0;  // that get the answer
};

struct Step {
    int64_t offsetNs;                    // since the beginning; of a wait: when it is reached
    Kind kind;                           // kWait: event.name holds what is waited for
    ar_context_event event;              // without its timestamp and its faults
    std::shared_ptr<const Fault> fault;  // kAnswer: never null
};

struct Scenario {
    std::vector<std::string> activities;
    std::vector<std::string> environments;
    bool lacksActivity = false;  // no table for this side
    bool lacksEnvironment = false;
    std::vector<Step> steps;  // in the order in which they are played
    double speed = 1;         // seconds of the module's clock in a second, or kStep
    bool loops = false;
    int64_t periodNs = 0;  // from one beginning to the next

    // The built-in lists and nothing to play.
    static Scenario builtIn();
};

struct Mistake {
    size_t line;  // 0: the file as a whole
    std::string reason;
};

// Returns all that is wrong with it, in the order of the lines.
std::vector<Mistake> readScenario(const char* path, Scenario* scenario);
// Returns false with the first of them, "path:line: reason" or "path: reason", in *error.
bool readScenario(const char* path, Scenario* scenario, std::string* error);

// A record or an answer of now, as a line of the scenario without its offset: its repetitions, with
// offsets from now. Returns the reason why it is bad, empty when it is good.
std::string readLine(const std::string& line, const Scenario& scenario, std::vector<Step>* steps);
constexpr size_t kMaxSteps = 1000000;

// The time that a line of the control, `step 2s`, lets pass. Returns the reason why it is bad,
// empty when it is good.
std::string readGrant(const std::string& line, int64_t* ns);

// Whole text to number, `step` to kStep. The slowest takes a quarter of an hour for a second; at
// the fastest the module's clock lasts for five days.
constexpr double kMinSpeed = 0.001;
constexpr double kMaxSpeed = 10000;
// Time is virtual: it passes at once where something is due, and stands where it is waited for.
constexpr double kStep = 0;
bool parseSpeed(const char* text, double* speed);

// What a loop may ask for, in records a second of CLOCK_MONOTONIC.
constexpr double kMaxLoopRate = 100000;
// Returns the reason why its loop, at its speed, asks for more; empty when it does not.
std::string checkLoop(const Scenario& scenario);

}  // namespace ar_simulator
