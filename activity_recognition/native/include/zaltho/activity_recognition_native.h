// SPDX-License-Identifier: Apache-2.0
// The native module ABI: what the service expects of the module below it.
//
// A module follows the platform's legacy hardware-module convention: hw_get_module() finds it
// under ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID, its open method creates the device named
// ACTIVITY_RECOGNITION_HARDWARE_INTERFACE. Modules are delivered as binaries, so every slot order,
// argument, width and offset here is frozen; the assertions at the end hold them on 64-bit
// little-endian targets. All records are plain C.
//
// Unless said otherwise a slot that returns int returns 0 for success and anything else for
// failure. Slots are called from several threads at once, also while the module is calling back.
// The service never tests a single slot for NULL: a table that is offered has all slots filled.
#pragma once

#include <stdint.h>

#include <hardware/hardware.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID "activity_recognition"
#define ACTIVITY_RECOGNITION_HARDWARE_INTERFACE "activity_recognition_hidl"

// Most records in one call of a callback. A call with more, with fewer than 1 or with a NULL array
// is logged and dropped whole.
#define ACTIVITY_RECOGNITION_MAX_EVENTS 192

// Most records in one current-state snapshot that a client's query accepts.
#define ACTIVITY_RECOGNITION_MAX_CURRENT 5

// Bytes of the text fields below.
#define ACTIVITY_RECOGNITION_NAME_SIZE 32

// A transition of one activity.
typedef struct activity_event {
    uint32_t event_type;  // 1 or 2, as in the enable calls; a record with 0 is skipped
    uint32_t activity;    // position in the list of supported activities
    int64_t timestamp;    // the module's clock, the same for all records
    uint32_t extra;       // the module's meaning; reaches version 1.1 clients only
    uint8_t reserved[4];  // never read
} activity_event;

// A record with a payload: extended activity events, environment events, current-state snapshots.
typedef struct ar_context_event {
    uint32_t event_type;
    uint32_t activity;  // the activity, or for environment records the environment
    int64_t timestamp;
    uint32_t extra;                             // reaches version 1.1 clients only
    uint32_t value;                             // reaches clients of both versions
    uint64_t context_data[4];                   // opaque, carried bit for bit
    char name[ACTIVITY_RECOGNITION_NAME_SIZE];  // must hold its terminating NUL
} ar_context_event;

// A client's extra parameters.
typedef struct other_params {
    double params[4];  // 1.0, 0.0, 0.0, 0.0 asks for no wake-up
    // A bounded field: a text of exactly 32 characters fills it without a terminator.
    char name[ACTIVITY_RECOGNITION_NAME_SIZE];
} other_params;

// Handed down by the service; valid for the life of the process. The module may call from any
// thread, several at once, also from inside a call into its own tables. The service reads the
// array during the call only.
typedef struct activity_callbacks {
    void (*activity_changed)(const activity_event* events, int count);
    void (*activity_extend_changed)(const ar_context_event* events, int count);
} activity_callbacks;

typedef struct environment_callbacks {
    void (*environment_changed)(const ar_context_event* events, int count);
} environment_callbacks;

typedef struct activity_interface {
    // Called once, when the activity interface is first asked for: the service does so at its
    // start.
    void (*register_activity_callbacks)(const activity_callbacks* callbacks);

    // Points *list to as many NUL-terminated names as it returns. The module keeps ownership;
    // list and names stay valid and unchanged while the service may read them. Below 1: none.
    int (*get_supported_activities_list)(char*** list);

    // Enables the pair or, when it is enabled, replaces its latency. report_latency_ns: how long
    // records may be held back, in nanoseconds.
    int (*enable_activity_event)(uint32_t activity, uint32_t event_type, int64_t report_latency_ns);

    // As above. params is the caller's: the module must not keep the pointer.
    int (*enable_activity_event_extend)(uint32_t activity, uint32_t event_type,
                                        int64_t report_latency_ns, const other_params* params);

    // Points *events to as many records as it returns, 1 to ACTIVITY_RECOGNITION_MAX_CURRENT for a
    // valid snapshot, the newest last. The module keeps ownership, as for the list.
    int (*get_current_activity)(ar_context_event** events);

    int (*disable_activity_event)(uint32_t activity, uint32_t event_type);

    // Delivers at once whatever is held back.
    int (*flush)(void);
} activity_interface;

// There is no flush on the environment side.
typedef struct environment_interface {
    // Called once, when the environment interface is first asked for, as above.
    void (*register_environment_callbacks)(const environment_callbacks* callbacks);

    int (*get_supported_environments_list)(char*** list);

    // Clients' calls arrive one to one: nothing is merged, counted or undone.
    int (*init_environment)(uint32_t environment, const other_params* params);
    int (*exit_environment)(uint32_t environment, const other_params* params);
    int (*enable_environment)(uint32_t environment, uint32_t event_type, int64_t report_latency_ns,
                              const other_params* params);
    int (*disable_environment)(uint32_t environment, uint32_t event_type);

    int (*get_current_environment)(ar_context_event** events);
} environment_interface;

typedef struct activity_recognition_module {
    struct hw_module_t common;
} activity_recognition_module;

typedef struct activity_recognition_device {
    struct hw_device_t common;

    // Each is called once, when its side is first asked for; again only after NULL, which means
    // that the module does not support the side. Tables stay valid for the process's life.
    const activity_interface* (*get_activity_interface)(struct activity_recognition_device* dev);
    const environment_interface* (*get_environment_interface)(
            struct activity_recognition_device* dev);
} activity_recognition_device;

#ifdef __cplusplus
}  // extern "C"

#include <stddef.h>

#define ZALTHO_AR_AT(type, field, offset) \
    static_assert(offsetof(type, field) == (offset), #type "." #field " moved")
#define ZALTHO_AR_SIZE(type, size) static_assert(sizeof(type) == (size), #type " changed size")

static_assert(sizeof(void*) == 8 && sizeof(int) == 4, "the ABI is that of LP64 targets");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the ABI is little-endian");

ZALTHO_AR_SIZE(activity_event, 24);
ZALTHO_AR_AT(activity_event, event_type, 0);
ZALTHO_AR_AT(activity_event, activity, 4);
ZALTHO_AR_AT(activity_event, timestamp, 8);
ZALTHO_AR_AT(activity_event, extra, 16);
ZALTHO_AR_AT(activity_event, reserved, 20);

ZALTHO_AR_SIZE(ar_context_event, 88);
ZALTHO_AR_AT(ar_context_event, event_type, 0);
ZALTHO_AR_AT(ar_context_event, activity, 4);
ZALTHO_AR_AT(ar_context_event, timestamp, 8);
ZALTHO_AR_AT(ar_context_event, extra, 16);
ZALTHO_AR_AT(ar_context_event, value, 20);
ZALTHO_AR_AT(ar_context_event, context_data, 24);
ZALTHO_AR_AT(ar_context_event, name, 56);

ZALTHO_AR_SIZE(other_params, 64);
ZALTHO_AR_AT(other_params, params, 0);
ZALTHO_AR_AT(other_params, name, 32);

ZALTHO_AR_SIZE(activity_callbacks, 16);
ZALTHO_AR_AT(activity_callbacks, activity_changed, 0);
ZALTHO_AR_AT(activity_callbacks, activity_extend_changed, 8);
ZALTHO_AR_SIZE(environment_callbacks, 8);
ZALTHO_AR_AT(environment_callbacks, environment_changed, 0);

ZALTHO_AR_SIZE(activity_interface, 56);
ZALTHO_AR_AT(activity_interface, register_activity_callbacks, 0);
ZALTHO_AR_AT(activity_interface, get_supported_activities_list, 8);
ZALTHO_AR_AT(activity_interface, enable_activity_event, 16);
ZALTHO_AR_AT(activity_interface, enable_activity_event_extend, 24);
ZALTHO_AR_AT(activity_interface, get_current_activity, 32);
ZALTHO_AR_AT(activity_interface, disable_activity_event, 40);
ZALTHO_AR_AT(activity_interface, flush, 48);

ZALTHO_AR_SIZE(environment_interface, 56);
ZALTHO_AR_AT(environment_interface, register_environment_callbacks, 0);
ZALTHO_AR_AT(environment_interface, get_supported_environments_list, 8);
ZALTHO_AR_AT(environment_interface, init_environment, 16);
ZALTHO_AR_AT(environment_interface, exit_environment, 24);
ZALTHO_AR_AT(environment_interface, enable_environment, 32);
ZALTHO_AR_AT(environment_interface, disable_environment, 40);
ZALTHO_AR_AT(environment_interface, get_current_environment, 48);

ZALTHO_AR_AT(activity_recognition_module, common, 0);
ZALTHO_AR_AT(hw_device_t, close, 112);
ZALTHO_AR_AT(activity_recognition_device, common, 0);
ZALTHO_AR_AT(activity_recognition_device, get_activity_interface, 120);
ZALTHO_AR_AT(activity_recognition_device, get_environment_interface, 128);
ZALTHO_AR_SIZE(activity_recognition_device, 136);

#undef ZALTHO_AR_AT
#undef ZALTHO_AR_SIZE
#endif  // __cplusplus
