// Who is calling.
#pragma once

#include <stdint.h>

#include <hwbinder/IPCThreadState.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
// Reads the process id of the caller that this thread is serving; outside any call that is this
// process itself. False when the thread has no binder state.
inline bool ReadCallingPid(int32_t* pid) {
    const auto* state = ::android::hardware::IPCThreadState::self();
    if (state == nullptr) return false;
    *pid = state->getCallingPid();
    return true;
}

// As above; 0 without binder state.
inline int32_t CallingPidOrZero() {
    int32_t pid = 0;
    return ReadCallingPid(&pid) ? pid : 0;
}

// The key of a client in every table, and its death cookie.
inline uint64_t ClientKey(int32_t pid) {
    return static_cast<uint64_t>(static_cast<int64_t>(pid));
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
