// SPDX-License-Identifier: Apache-2.0
// The process as a party to calls: its pool of threads that serve incoming ones.
#pragma once

#include <stddef.h>

#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android { namespace hardware {

class ProcessState : public virtual RefBase {
  public:
    static sp<ProcessState> self();

    // Lets incoming calls be served. Idempotent; generated code calls it before it hands out an
    // object of this process.
    void startThreadPool();

    // How many incoming calls may be served at a time, 1 to 64; 1 unless set.
    status_t setThreadPoolConfiguration(size_t maxThreads, bool callerJoinsPool);

  private:
    ProcessState() = default;
    ~ProcessState() override = default;
};

}}  // namespace android::hardware
