// SPDX-License-Identifier: Apache-2.0
// The engine behind the module's tables.
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <utils/Mutex.h>

#include <zaltho/activity_recognition_native.h>

#include "HoldBuffer.h"
#include "Player.h"
#include "Scenario.h"
#include "Trace.h"

#define AR_SIMULATOR_LOG_TAG "AR_simulator"

namespace ar_simulator {

enum Side { kActivity, kEnvironment, kSides };

// Lives as long as the process, like the tables that lead to it. Every method may be called from
// any thread at any time, from inside callbacks too; only close() waits. Results are 0 or negative
// errno values, or a count where the slot returns one.
class Simulator {
  public:
    static Simulator& instance();

    // Reads the environment variables and the scenario, starts the thread. -EINVAL when one of
    // them is bad (the log says which), -EBUSY when open.
    int open();
    // Stops the thread, waits for a callback in progress. -EDEADLK on that thread.
    int close();

    // Whether the scenario leaves the side its table.
    bool offers(Side side);
    void registerActivityCallbacks(const activity_callbacks* callbacks);
    void registerEnvironmentCallbacks(const environment_callbacks* callbacks);

    // The list stays as it is until the next open().
    int supportedList(Side side, char*** list);
    // The snapshot belongs to the calling thread until it asks again for this side.
    int current(Side side, ar_context_event** events);

    // A plain enable has no params.
    int enable(Kind kind, uint32_t what, uint32_t eventType, int64_t latencyNs,
               const other_params* params);
    int disable(Side side, uint32_t what, uint32_t eventType);
    int flush();

    int initEnvironment(uint32_t environment, const other_params* params);
    int exitEnvironment(uint32_t environment, const other_params* params);

  private:
    enum class State { kClosed, kOpen, kClosing };

    bool configure() REQUIRES(mMutex);
    void release() REQUIRES(mMutex);
    int checkPair(Side side, uint32_t what, uint32_t eventType) REQUIRES(mMutex);
    int takeAnswer(const char* native) REQUIRES(mMutex);
    int finish(const char* native, TraceLine& line, int result) REQUIRES(mMutex);
    void write(TraceLine& line) REQUIRES(mMutex);
    void addPair(Side side, const PairKey& key, int64_t latencyNs, bool extended) REQUIRES(mMutex);
    void dropPair(Side side, const PairKey& key) REQUIRES(mMutex);

    void startPlaying() REQUIRES(mMutex);
    void wake() REQUIRES(mMutex);
    void run();
    void readControl() REQUIRES(mMutex);
    bool hasLine() const REQUIRES(mMutex);
    bool obeyNext() REQUIRES(mMutex);
    void obey(const std::string& line) REQUIRES(mMutex);
    void play(int64_t nowNs) REQUIRES(mMutex);
    void playNow() REQUIRES(mMutex);
    bool sendDue(int64_t nowNs) REQUIRES(mMutex);
    void handOver(const Step& step) REQUIRES(mMutex);
    void handOver(Kind kind, const std::vector<ar_context_event>& events, int threads)
            REQUIRES(mMutex);
    int64_t nextDueNs() const REQUIRES(mMutex);
    bool advance(int64_t dueNs) REQUIRES(mMutex);

    android::Mutex mMutex;
    State mState GUARDED_BY(mMutex) = State::kClosed;
    std::thread mThread GUARDED_BY(mMutex);
    android::base::unique_fd mWakeFd GUARDED_BY(mMutex);
    android::base::unique_fd mControlFd GUARDED_BY(mMutex);
    std::string mControlText GUARDED_BY(mMutex);  // lines to be obeyed, the last one incomplete
    Trace mTrace GUARDED_BY(mMutex);

    Scenario mScenario GUARDED_BY(mMutex);
    std::vector<char*> mLists[kSides] GUARDED_BY(mMutex);
    Clock mClock GUARDED_BY(mMutex);
    Player mPlayer GUARDED_BY(mMutex);
    int64_t mGrantedNs GUARDED_BY(mMutex) = 0;  // how far virtual time may move during a wait
    int mCalling GUARDED_BY(mMutex) = 0;        // callbacks in progress

    const activity_callbacks* mActivityCallbacks GUARDED_BY(mMutex) = nullptr;
    const environment_callbacks* mEnvironmentCallbacks GUARDED_BY(mMutex) = nullptr;
    PairTable mPairs[kSides] GUARDED_BY(mMutex);
    std::set<uint32_t> mInitialised GUARDED_BY(mMutex);
    HoldBuffer mBuffers[kRecordKinds] GUARDED_BY(mMutex);
    std::vector<ar_context_event> mCurrent[kSides] GUARDED_BY(mMutex);  // newest last
    // Snapshots that are too long on purpose, by the thread that asked.
    std::map<std::thread::id, std::vector<ar_context_event>> mOverlong[kSides] GUARDED_BY(mMutex);

    // Faults that have come: the batch that is next, those for calls of slots, answers of slots.
    Step mDirect GUARDED_BY(mMutex) = {};  // without a fault: none
    std::map<std::string, Step> mInside GUARDED_BY(mMutex);
    std::map<std::string, Fault> mAnswers GUARDED_BY(mMutex);
};

}  // namespace ar_simulator
