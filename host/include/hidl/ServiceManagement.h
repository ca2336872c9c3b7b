// SPDX-License-Identifier: Apache-2.0
// Finding and offering services by name.
#pragma once

#include <string>

#include <utils/Errors.h>
#include <utils/StrongPointer.h>

namespace android {
namespace hidl {
namespace base { namespace V1_0 {
struct IBase;
}}  // namespace base::V1_0
namespace manager { namespace V1_0 {
// Whoever calls it includes <android/hidl/manager/1.0/IServiceManager.h>, as on the platform.
struct IServiceManager;
}}  // namespace manager::V1_0
}  // namespace hidl

namespace hardware {

// The host's registry: a folder of sockets, no daemon. A local object; never NULL.
sp<::android::hidl::manager::V1_0::IServiceManager> defaultServiceManager();

// A "manager" that answers get() with the object of an implementation library, loaded into this
// process: PACKAGE@VERSION-impl*.so from the folders of HIDL_HOST_HW_DIRS.
sp<::android::hidl::manager::V1_0::IServiceManager> getPassthroughServiceManager();

namespace details {

// retry: wait until somebody serves it. getStub: load it into this process instead.
sp<::android::hidl::base::V1_0::IBase> getRawServiceInternal(const std::string& descriptor,
                                                             const std::string& instance,
                                                             bool retry, bool getStub);

// OK, or UNKNOWN_ERROR with a log line that says why.
status_t registerAsServiceInternal(const sp<::android::hidl::base::V1_0::IBase>& service,
                                   const std::string& name);

}  // namespace details
}  // namespace hardware
}  // namespace android
