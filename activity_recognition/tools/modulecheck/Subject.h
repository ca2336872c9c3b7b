// SPDX-License-Identifier: Apache-2.0
// The module under check, and the callbacks that it is given.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "Probe.h"

namespace modulecheck {

enum class Kind { kPlain, kExtended, kEnvironment };

// Every step that fails is a finding already when it returns NULL or false.
struct Subject {
    hw_module_t* module = nullptr;
    activity_recognition_device* device = nullptr;
    const activity_interface* activity = nullptr;        // NULL: the side is absent
    const environment_interface* environment = nullptr;  // likewise
    uint32_t activities = 0;                             // sizes of the lists
    uint32_t environments = 0;

    bool load(Probe& probe);
    bool open(Probe& probe);
    bool getTables(Probe& probe);
    // The newest time in the current states, 0 without one.
    int64_t newestTime() const;
    // All of the above, the sizes of the lists, and the callbacks registered. Quiet about what
    // other checks report.
    bool start(Probe& probe);
};

// What the callbacks heard, and the rules of events. One in a process.
class Recorder {
  public:
    using Clock = std::chrono::steady_clock;

    static Recorder& instance();

    void start(Probe* probe, const Subject& subject);

    // Told around the calls, so that events can be judged.
    void willEnable(Kind kind, uint32_t what, uint32_t eventType);
    void didDisable(Kind kind, uint32_t what, uint32_t eventType);
    void didClose();

    // What the next callback of a side does, once, after its records were looked at.
    void inNextCallback(bool ofEnvironment, std::function<void()> action);
    // False when it has begun already.
    bool dropAction();
    // What the next callback on this thread does; NULL: nothing.
    static void inNextCallbackHere(std::function<void()> action);

    int batches();
    // Whether there were more than this many within that time.
    bool waitForBatch(int than, Seconds time);
    // The same of batches with records newer than any before.
    int advances();
    bool waitForAdvance(int than, Seconds time);

    // A time of the module's clock that is over now: no record of it is younger than this moment.
    void sawTime(int64_t timestamp);
    // From now on, records are held to this latency.
    void promise(Seconds latency);
    // Whether, within that time, records came of before the promise, if some were held then, and of
    // after it (of activities, if there are any); or one that is late.
    bool waitForPromised(Seconds time);

    // Called by the callbacks.
    void heard(Kind kind, const void* events, int count);

  private:
    struct PairState {
        bool enabled = false;
        Clock::time_point disabledAt;
    };

    bool checkBatch(const char* name, const void* events, int count, size_t stride);
    void checkThread(bool isEnvironment, const char* callback);
    void checkEvent(Kind kind, const char* callback, uint32_t eventType, uint32_t what,
                    int64_t timestamp, Clock::time_point at);
    void checkLatency(Kind kind, uint32_t eventType, uint32_t what, int64_t timestamp,
                      Clock::time_point at);
    void addTime(int64_t timestamp);

    std::mutex mLock;
    std::condition_variable mHeard;
    Probe* mProbe = nullptr;
    uint32_t mActivities = 0;
    uint32_t mEnvironments = 0;
    int mBatches = 0;
    int mAdvances = 0;
    int64_t mNewest = 0;   // of the records
    int mRunning[2] = {};  // callbacks of each side, those inside others not counted
    bool mClosed = false;
    std::function<void()> mAction;
    bool mActionOfEnvironment = false;
    std::map<int64_t, Clock::time_point> mPassed;  // times of the module's, and when first seen
    bool mPromised = false;
    Seconds mLatency{};
    Clock::time_point mPromisedAt;
    int64_t mPromisedTime = 0;  // newest then
    bool mHeldCame = false;     // of what was there then, and of what
    bool mNewCame = false;      // came up after
    std::map<std::tuple<bool, uint32_t, uint32_t>, PairState> mPairs;  // first: environment?
    std::map<std::tuple<Kind, uint32_t, uint32_t>, int64_t> mTimes;
};

extern const activity_callbacks kActivityCallbacks;
extern const environment_callbacks kEnvironmentCallbacks;

// Calls of both sides by one name, with guarded parameters where the slot takes some. Each returns
// what the slot did. Callbacks that come on the calling thread meanwhile are taken for the slot's.
struct Calls {
    Probe& probe;
    const Subject& subject;

    int enable(Kind kind, uint32_t what, uint32_t eventType, int64_t latencyNs) const;
    int disable(Kind kind, uint32_t what, uint32_t eventType) const;
    int flush() const;  // 0 without the activity side
    int init(uint32_t environment, const std::string& name) const;
    int exit(uint32_t environment, const std::string& name) const;
    // Whatever the module offers, with the extended slot on the activity side.
    void enableAll(int64_t latencyNs) const;
    void disableAll() const;
};

}  // namespace modulecheck
