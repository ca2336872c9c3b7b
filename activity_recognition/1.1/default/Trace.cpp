// SPDX-License-Identifier: Apache-2.0
#include "Trace.h"

#include <inttypes.h>
#include <stdio.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

void WriteLatency(uint32_t activity, uint32_t event, int64_t latencyNs) {
    char name[48];
    snprintf(name, sizeof(name), "AR latency ns %" PRIu32 ":%" PRIu32, activity, event);
    atrace_int64(ATRACE_TAG_HAL, name, latencyNs);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
