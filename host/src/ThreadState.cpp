#define LOG_TAG "hidl"

#include "ThreadState.h"

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include <hidl/HidlTransportSupport.h>
#include <hwbinder/ProcessState.h>
#include <log/log.h>

#include "Node.h"

namespace android { namespace hardware {

namespace {

std::atomic<bool> gShutdown{false};

// Never destroyed: pool threads outlive main.
struct Pool {
    std::mutex mutex;
    std::condition_variable changed;
    size_t size = 1;
    size_t busy = 0;
    bool started = false;
};

Pool& pool() {
    static auto* pool = new Pool;
    return *pool;
}

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
    std::unique_lock<std::mutex> lock(pool().mutex);
    pool().changed.wait(lock, [] { return pool().started && pool().busy < pool().size; });
    ++pool().busy;
}

PoolSlot::~PoolSlot() {
    std::unique_lock<std::mutex> lock(pool().mutex);
    --pool().busy;
    pool().changed.notify_one();
}

size_t startedPoolSize() {
    std::unique_lock<std::mutex> lock(pool().mutex);
    return pool().started ? pool().size : 0;
}

}  // namespace host

sp<ProcessState> ProcessState::self() {
    static auto* self = new sp<ProcessState>(new ProcessState);
    return *self;
}

void ProcessState::startThreadPool() {
    {
        std::unique_lock<std::mutex> lock(pool().mutex);
        if (pool().started) return;
        pool().started = true;
        pool().changed.notify_all();
    }
    host::Node::self().offerServing();
}

status_t ProcessState::setThreadPoolConfiguration(size_t maxThreads, bool) {
    if (maxThreads < 1 || maxThreads > 64) {
        ALOGE("A pool of %zu threads is not possible, 1 to 64 are", maxThreads);
        return BAD_VALUE;
    }
    {
        std::unique_lock<std::mutex> lock(pool().mutex);
        pool().size = maxThreads;
        pool().changed.notify_all();
    }
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
