// SPDX-License-Identifier: Apache-2.0
// What the transport sets while it serves: the caller, and a place in the pool.
#pragma once

#include <sys/types.h>

#include <functional>

#include <hwbinder/IPCThreadState.h>

namespace android { namespace hardware {

// The thread is serving this caller for as long as the object lives.
class ScopedCaller {
  public:
    // pid: 0 in a oneway call.
    [[gnu::hot]] explicit ScopedCaller(pid_t pid);
    [[gnu::hot]] ~ScopedCaller();
    ScopedCaller(const ScopedCaller&) = delete;
    ScopedCaller& operator=(const ScopedCaller&) = delete;

  private:
    IPCThreadState& mState;
    const IPCThreadState mBefore;
};

namespace host {

// How many of the pool's threads are serving, which the platform's calls limit. Calls that come
// back to a waiting thread are served outside.
class PoolSlot {
  public:
    // Waits for a free one.
    [[gnu::hot]] PoolSlot();
    [[gnu::hot]] ~PoolSlot();
    PoolSlot(const PoolSlot&) = delete;
    PoolSlot& operator=(const PoolSlot&) = delete;
};

// 0 until the pool is started.
size_t startedPoolSize();

// Runs this on a thread of the pool as soon as one is free, so never before the pool is started.
// Several of them run at a time, as far as the pool goes.
void runOnPool(std::function<void()> task);

}  // namespace host
}}  // namespace android::hardware
