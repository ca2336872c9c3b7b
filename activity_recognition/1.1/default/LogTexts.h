// SPDX-License-Identifier: Apache-2.0
// The log texts of what both versions and both sides do alike but tell in words of their own. A
// text stands whole where its row is made, so that a line from a device's log is found by one
// search.
#pragma once

#include <stdint.h>

#include <log/log.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// A format string, which the compiler checks against sample arguments of the types that it will be
// printed with.
#define AR_FORMAT(format, ...) \
    (false ? static_cast<void>(__android_log_print(0, "", format, __VA_ARGS__)) : void(), format)

// What a registration says.
struct RegistrationTexts {
    const char* tag;
    int32_t pidWithoutCaller;  // whose registration it is when the thread has no binder state
    const char* noRecipient;
    const char* noCaller;
    const char* refused;     // process id
    const char* linkFailed;  // description of the transport's status
    const char* linkRefused;
    const char* linked;              // process id, clients now
    const char* replaced = nullptr;  // process id; NULL where nothing is replaced
};

// What the removal of a dead client says.
struct DeathTexts {
    const char* tag;
    const char* removedV1_1;  // clients left
    const char* removedV1_0;  // clients left
};

// What a broadcast says of clients that it does not reach.
struct BroadcastTexts {
    const char* tag;
    const char* nullCallback;  // process id
    const char* failed;        // function, process id
    const char* function;
};

// What a query that cannot be answered says.
struct QueryTexts {
    const char* tag;
    const char* noTable;   // method
    const char* badCount;  // method, what the module answered
    const char* method;
    const char* noMemory = nullptr;  // NULL where nothing is allocated
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
