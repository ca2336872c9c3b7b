// SPDX-License-Identifier: Apache-2.0
// The JSON trace: one object a line for every native call and every batch, as docs/scenarios.md
// describes it.
#pragma once

#include <stdint.h>

#include <string>

#include <android-base/unique_fd.h>
#include <zaltho/activity_recognition_native.h>

namespace ar_simulator {

// One line under construction.
class TraceLine {
  public:
    explicit TraceLine(const char* native);

    TraceLine& number(const char* key, int64_t value);
    TraceLine& params(const other_params* params);
    // Of a snapshot.
    TraceLine& timestamps(const ar_context_event* events, int count);
    // Plain records carry no payload.
    TraceLine& events(const ar_context_event* events, int count, bool withPayload);

    std::string finish();

  private:
    std::string mText;
};

// Not thread-safe: the owner's lock orders the lines.
class Trace {
  public:
    // Returns 0 or a negative errno value.
    int open(const char* path);
    void close() { mFd.reset(); }
    bool isOpen() const { return mFd.get() >= 0; }
    void write(TraceLine& line);

  private:
    android::base::unique_fd mFd;
};

}  // namespace ar_simulator
