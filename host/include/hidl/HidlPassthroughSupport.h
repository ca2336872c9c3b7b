// SPDX-License-Identifier: Apache-2.0
// Wrapping of local objects, so that passthrough calls behave like calls across processes.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/TaskRunner.h>

namespace android { namespace hardware { namespace details {

sp<::android::hidl::base::V1_0::IBase> wrapPassthroughInternal(
        const sp<::android::hidl::base::V1_0::IBase>& interface);

// A fresh wrapper at each call; NULL for NULL, and the object itself when it is remote.
template <typename IType>
sp<IType> wrapPassthrough(const sp<IType>& interface) {
    if (interface == nullptr || interface->isRemote()) return interface;
    return static_cast<IType*>(wrapPassthroughInternal(interface).get());
}

}}}  // namespace android::hardware::details
