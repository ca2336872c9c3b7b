// SPDX-License-Identifier: Apache-2.0
// The platform's legacy hardware-module convention: records, constants and the loader.
#pragma once

#include <stdint.h>
#include <sys/cdefs.h>

#include <cutils/native_handle.h>

__BEGIN_DECLS

#define MAKE_TAG_CONSTANT(A, B, C, D) (((A) << 24) | ((B) << 16) | ((C) << 8) | (D))

#define HARDWARE_MODULE_TAG MAKE_TAG_CONSTANT('H', 'W', 'M', 'T')
#define HARDWARE_DEVICE_TAG MAKE_TAG_CONSTANT('H', 'W', 'D', 'T')

#define HARDWARE_MAKE_API_VERSION(maj, min) ((((maj)&0xff) << 8) | ((min)&0xff))
#define HARDWARE_HAL_API_VERSION HARDWARE_MAKE_API_VERSION(1, 0)
#define HARDWARE_MODULE_API_VERSION(maj, min) HARDWARE_MAKE_API_VERSION(maj, min)

// Name of the symbol, of type hw_module_t or a record that starts with one, that a module exports.
#define HAL_MODULE_INFO_SYM HMI
#define HAL_MODULE_INFO_SYM_AS_STR "HMI"

struct hw_module_t;
struct hw_module_methods_t;
struct hw_device_t;

typedef struct hw_module_t {
    uint32_t tag;  // HARDWARE_MODULE_TAG
    uint16_t module_api_version;
    uint16_t hal_api_version;
    const char* id;  // must equal the id that the module is loaded by
    const char* name;
    const char* author;
    struct hw_module_methods_t* methods;
    void* dso;  // set by the loader
    uint64_t reserved[32 - 7];
} hw_module_t;

typedef struct hw_module_methods_t {
    // Opens the device named id. Returns 0 and sets *device, or a negative errno value.
    int (*open)(const struct hw_module_t* module, const char* id, struct hw_device_t** device);
} hw_module_methods_t;

typedef struct hw_device_t {
    uint32_t tag;  // HARDWARE_DEVICE_TAG
    uint32_t version;
    struct hw_module_t* module;
    uint64_t reserved[12];
    int (*close)(struct hw_device_t* device);
} hw_device_t;

// Loads the module of this id. Returns 0 and sets *module, or a negative errno value: -ENOENT when
// no file is found, -EINVAL when a file is not a module of this id.
int hw_get_module(const char* id, const struct hw_module_t** module);

__END_DECLS
