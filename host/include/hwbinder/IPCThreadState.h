// SPDX-License-Identifier: Apache-2.0
// The calling thread as a party to calls: who is being served.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <utils/Errors.h>

namespace android { namespace hardware {

class IPCThreadState {
  public:
    // The calling thread's state. NULL after shutdown().
    static IPCThreadState* self();

    // For the whole process: from now on no thread has a state, as at the end of a process.
    static void shutdown();
    // Host only, for tests: takes shutdown() back.
    static void restart();

    // The caller whose transaction this thread is serving, by the kernel's word; 0 in a oneway
    // transaction; outside any transaction this process itself.
    pid_t getCallingPid() const { return mCallingPid; }
    uid_t getCallingUid() const { return mCallingUid; }

    // The caller as a token, uid in the upper and pid in the lower 32 bits. clear makes the thread
    // its own caller and answers who it was before.
    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);

    // Serves incoming calls for as long as the process lives.
    void joinThreadPool();

  private:
    friend class ScopedCaller;

    IPCThreadState();
    static IPCThreadState& state();

    pid_t mCallingPid;
    uid_t mCallingUid;
};

}}  // namespace android::hardware
