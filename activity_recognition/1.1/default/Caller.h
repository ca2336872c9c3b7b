// Who is calling.
#ifndef ZALTHO_AR_CALLER_H
#define ZALTHO_AR_CALLER_H

#include <stdint.h>

#include <hwbinder/IPCThreadState.h>

namespace vendor {
namespace zaltho {
namespace hardware {
namespace activity_recognition {
namespace V1_1 {
namespace implementation {
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

}  // namespace implementation
}  // namespace V1_1
}  // namespace activity_recognition
}  // namespace hardware
}  // namespace zaltho
}  // namespace vendor

#endif  // ZALTHO_AR_CALLER_H
