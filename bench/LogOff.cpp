// SPDX-License-Identifier: Apache-2.0
// Preloaded into a process whose log is to be off: nothing below a fatal line is formatted.
#include <android/log.h>

namespace {
__attribute__((constructor)) void turnOff() {
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
}
}  // namespace
