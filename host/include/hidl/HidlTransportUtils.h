// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <hidl/HidlSupport.h>

namespace android { namespace hardware { namespace details {

// Whether the object has this interface in its chain; asks the other process if it is remote.
bool canCastInterface(::android::hidl::base::V1_0::IBase* interface, const char* castTo,
                      bool emitError = false);

// The object's most derived interface; empty when it cannot be asked.
std::string getDescriptor(::android::hidl::base::V1_0::IBase* interface);

// The process id for getDebugInfo().
int32_t getPidIfSharable();

// Whether addresses may be told in getDebugInfo().
bool debuggable();

}}}  // namespace android::hardware::details
