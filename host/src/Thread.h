// SPDX-License-Identifier: Apache-2.0
// Threads of the runtime. Where none can be made, one piece of work is refused and the process goes
// on.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>

namespace android { namespace hardware { namespace host {

// Runs the body on a thread of its own that nobody waits for. False when none can be made, with one
// log line a second at most.
// name: at most 15 characters.
bool startThread(const char* name, std::function<void()> body);

// Lets something be logged once a second, however often it happens.
class LogLimit {
  public:
    bool allows();

  private:
    std::atomic<int64_t> mNext{INT64_MIN};  // nanoseconds
};

}}}  // namespace android::hardware::host
