// SPDX-License-Identifier: Apache-2.0
// Fast message queues are in no interface that the host serves. Generated code asserts the size.
#pragma once

#include <hidl/HidlSupport.h>

namespace android { namespace hardware {

enum MQFlavor : uint32_t { kSynchronizedReadWrite = 0x01, kUnsynchronizedWrite = 0x02 };

template <typename T, MQFlavor flavor>
struct MQDescriptor {
  private:
    hidl_vec<uint64_t> mGrantors;
    details::hidl_pointer<native_handle_t> mHandle;
    uint32_t mQuantum __attribute__((unused)) = 0;
    uint32_t mFlags __attribute__((unused)) = flavor;
};

}}  // namespace android::hardware
