// Clients' extra parameters in the native form.
#pragma once

#include <string.h>

#include <vendor/zaltho/hardware/activity_recognition/1.0/types.h>
#include <zaltho/activity_recognition_native.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
// A longer name is refused before any native call.
inline bool NameFits(const V1_0::OtherParams& params) {
    return params.name.size() <= ACTIVITY_RECOGNITION_NAME_SIZE;
}

// Requires NameFits(params). A name of exactly ACTIVITY_RECOGNITION_NAME_SIZE characters fills the
// field without a terminator: intended, modules treat it as a bounded field.
inline other_params ToNativeParams(const V1_0::OtherParams& params) {
    other_params native;
    memset(&native, 0, sizeof(native));
    memcpy(native.params, params.params.data(), sizeof(native.params));
    memcpy(native.name, params.name.c_str(), params.name.size());
    return native;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
