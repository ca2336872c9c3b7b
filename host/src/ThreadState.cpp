// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include "ThreadState.h"

#include <unistd.h>

#include <atomic>
#include <deque>

#include <hidl/HidlTransportSupport.h>
#include <hwbinder/ProcessState.h>
#include <log/log.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include "Node.h"
#include "Thread.h"

namespace android { namespace hardware {

namespace {

std::atomic<bool> gShutdown{false};

// Places in the pool, which nearly every call takes and leaves without another look at it.
std::atomic<size_t> gPlaces{0};  // how many calls the pool may serve at a time; 0 until it starts
std::atomic<size_t> gBusy{0};
std::atomic<size_t> gWaiting{0};  // changed under the pool's lock

bool tryEnter() {
    size_t busy = gBusy;
    while (busy < gPlaces) {
        if (gBusy.compare_exchange_weak(busy, busy + 1)) return true;
    }
    return false;
}

// How many threads serve, and may. Calls are served by the threads of their connections; what comes
// from no connection is run by threads of the pool's own. The first of these is made at the start
// and stays, so that deaths are told even when no further thread can be had.
class Pool {
  public:
    // Never destroyed: pool threads outlive main.
    static Pool& self() {
        static auto* self = new Pool;
        return *self;
    }

    // Returns false when it was started before.
    bool start() {
        Mutex::Autolock lock(mMutex);
        if (mStarted) return false;
        mStarted = true;
        gPlaces = mSize;
        mChanged.broadcast();
        addRunner();
        return true;
    }
    void setSize(size_t size) {
        Mutex::Autolock lock(mMutex);
        mSize = size;
        if (mStarted) gPlaces = size;
        mChanged.broadcast();
    }

    void waitForPlace() {
        Mutex::Autolock lock(mMutex);
        ++gWaiting;
        while (!tryEnter()) mChanged.wait(mMutex);
        --gWaiting;
    }
    void placeIsFree() {
        Mutex::Autolock lock(mMutex);
        mChanged.signal();
    }

    void post(std::function<void()> task) {
        {
            Mutex::Autolock lock(mMutex);
            mTasks.push_back(std::move(task));
            if (mStarted && mTasks.size() > mIdleRunners && mRunners < mSize) addRunner();
        }
        // Who is woken would only wait again, for the lock.
        mPosted.signal();
    }

  private:
    void addRunner() REQUIRES(mMutex) {
        // Without one, those that run do it, or the next task tries again.
        if (host::startThread("hidl-pool", [this] { run(); })) ++mRunners;
    }
    void run() {
        while (std::function<void()> task = next()) {
            host::PoolSlot slot;
            task();
        }
    }
    // Waits for one; empty when others wait already.
    std::function<void()> next() {
        Mutex::Autolock lock(mMutex);
        ++mIdleRunners;
        while (mTasks.empty() && mRunners == 1) mPosted.wait(mMutex);
        --mIdleRunners;
        if (mTasks.empty()) {
            --mRunners;
            return nullptr;
        }
        std::function<void()> task = std::move(mTasks.front());
        mTasks.pop_front();
        return task;
    }

    Mutex mMutex;
    Condition mChanged;
    size_t mSize GUARDED_BY(mMutex) = 1;
    bool mStarted GUARDED_BY(mMutex) = false;

    Condition mPosted;
    std::deque<std::function<void()>> mTasks GUARDED_BY(mMutex);
    size_t mRunners GUARDED_BY(mMutex) = 0;
    size_t mIdleRunners GUARDED_BY(mMutex) = 0;
};

}  // namespace

IPCThreadState::IPCThreadState() : mCallingPid(getpid()), mCallingUid(getuid()) {}

IPCThreadState* IPCThreadState::self() {
    return gShutdown ? nullptr : &state();
}

void IPCThreadState::shutdown() {
    gShutdown = true;
}

void IPCThreadState::restart() {
    gShutdown = false;
}

int64_t IPCThreadState::clearCallingIdentity() {
    const int64_t token =
            (static_cast<int64_t>(mCallingUid) << 32) | static_cast<uint32_t>(mCallingPid);
    mCallingPid = getpid();
    mCallingUid = getuid();
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    mCallingUid = static_cast<uid_t>(token >> 32);
    mCallingPid = static_cast<pid_t>(token);
}

void IPCThreadState::joinThreadPool() {
    // Each connection has a thread of the runtime's own, so this one has nothing to add but its
    // place in the pool.
    ProcessState::self()->startThreadPool();
    for (;;) pause();
}

// The state of this thread, also while self() hides it.
IPCThreadState& IPCThreadState::state() {
    thread_local IPCThreadState state;
    return state;
}

ScopedCaller::ScopedCaller(pid_t pid) : mState(IPCThreadState::state()), mBefore(mState) {
    mState.mCallingPid = pid;
    // Only processes of one user ever talk to each other here. Asked once: it is a system call.
    static const uid_t uid = getuid();
    mState.mCallingUid = uid;
}

ScopedCaller::~ScopedCaller() {
    mState = mBefore;
}

namespace host {

PoolSlot::PoolSlot() {
    if (!tryEnter()) Pool::self().waitForPlace();
}

PoolSlot::~PoolSlot() {
    --gBusy;
    // Who is not counted yet will see the free place.
    if (gWaiting > 0) Pool::self().placeIsFree();
}

size_t startedPoolSize() {
    return gPlaces;
}

void runOnPool(std::function<void()> task) {
    Pool::self().post(std::move(task));
}

}  // namespace host

sp<ProcessState> ProcessState::self() {
    static auto* self = new sp<ProcessState>(new ProcessState);
    return *self;
}

void ProcessState::startThreadPool() {
    if (Pool::self().start()) host::Node::self().offerServing();
}

status_t ProcessState::setThreadPoolConfiguration(size_t maxThreads, bool) {
    if (maxThreads < 1 || maxThreads > 64) {
        ALOGE("A pool of %zu threads is not possible, 1 to 64 are", maxThreads);
        return BAD_VALUE;
    }
    Pool::self().setSize(maxThreads);
    host::Node::self().offerServing();
    return OK;
}

void configureRpcThreadpool(size_t maxThreads, bool callerWillJoin) {
    status_t status = ProcessState::self()->setThreadPoolConfiguration(maxThreads, callerWillJoin);
    LOG_ALWAYS_FATAL_IF(status != OK, "configureRpcThreadpool(%zu) failed", maxThreads);
}

void joinRpcThreadpool() {
    IPCThreadState::self()->joinThreadPool();
}

}}  // namespace android::hardware
