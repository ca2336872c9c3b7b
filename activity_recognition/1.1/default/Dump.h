// SPDX-License-Identifier: Apache-2.0
// The dump: who is registered, who asked for what, what the module was told, what came and who got
// it. What the root object's debug() answers; docs/dump.md explains each line.
#pragma once

#include <string>

#include <hidl/HidlSupport.h>

#include "ActivityInterface.h"
#include "EnvironmentInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// options: "--json" for one JSON object, "--help"; of others only a complaint comes. NULL for a
// side that nobody has asked for yet, or that the module lacks.
std::string Dump(const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options,
                 ActivityInterface* activity, EnvironmentInterface* environment);

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
