// SPDX-License-Identifier: Apache-2.0
// What the platform's tracer shows of the service, under the category "hal". With tracing off each
// of these is a look at its tags.
#pragma once

#include <stdint.h>

#include <cutils/trace.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// A slice of this thread's time while it lives. It ends only what it has begun: tracing may be
// switched on or off meanwhile, and an end without a beginning ends the slice further out.
class TraceSlice {
  public:
    explicit TraceSlice(const char* name) : mBegun(atrace_is_tag_enabled(ATRACE_TAG_HAL) != 0) {
        if (mBegun) atrace_begin(ATRACE_TAG_HAL, name);
    }
    ~TraceSlice() {
        if (mBegun) atrace_end(ATRACE_TAG_HAL);
    }
    TraceSlice(const TraceSlice&) = delete;
    TraceSlice& operator=(const TraceSlice&) = delete;

  private:
    const bool mBegun;
};

// No latency that the module is told.
constexpr int64_t kTraceNotEnabled = -1;

// The pair's counter: the latency with which the module has it from now on.
void WriteLatency(uint32_t activity, uint32_t event, int64_t latencyNs);
inline void TraceLatency(uint32_t activity, uint32_t event, int64_t latencyNs) {
    if (atrace_is_tag_enabled(ATRACE_TAG_HAL) != 0) WriteLatency(activity, event, latencyNs);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
