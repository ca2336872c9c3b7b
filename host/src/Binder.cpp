// SPDX-License-Identifier: Apache-2.0
#include <hwbinder/Binder.h>

#include <utility>

#include <hwbinder/Parcel.h>

namespace android { namespace hardware {

status_t BHwBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags,
                             TransactCallback callback) {
    return onTransact(code, data, reply, flags, std::move(callback));
}

status_t BHwBinder::linkToDeath(const sp<DeathRecipient>&) {
    return INVALID_OPERATION;
}

status_t BHwBinder::unlinkToDeath(const wp<DeathRecipient>&) {
    return INVALID_OPERATION;
}

}}  // namespace android::hardware
