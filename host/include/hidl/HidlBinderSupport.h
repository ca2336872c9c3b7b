// SPDX-License-Identifier: Apache-2.0
// Between HIDL's types and the parcel, and between interfaces and the objects that carry them.
#pragma once

#include <mutex>
#include <new>
#include <vector>

#include <android/hidl/base/1.0/BnHwBase.h>
#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/HidlTransportUtils.h>
#include <hidl/Static.h>
#include <hidl/Status.h>
#include <hwbinder/Binder.h>
#include <hwbinder/IBinder.h>
#include <hwbinder/IInterface.h>
#include <hwbinder/Parcel.h>
#include <hwbinder/ProcessState.h>

namespace android { namespace hardware {

// Turns a binder's death into a HIDL client's. Held by the proxy alone: without the proxy there is
// no notice.
class hidl_binder_death_recipient : public IBinder::DeathRecipient {
  public:
    hidl_binder_death_recipient(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
                                const sp<::android::hidl::base::V1_0::IBase>& base);

    void binderDied(const wp<IBinder>& who) override;
    bool swapIfEqual(IBinder::DeathRecipient* other) override;
    wp<hidl_death_recipient> getRecipient() const { return mRecipient; }

  private:
    const wp<hidl_death_recipient> mRecipient;
    uint64_t mCookie;
    const wp<::android::hidl::base::V1_0::IBase> mBase;
};

[[gnu::hot]] status_t readFromParcel(Status* status, const Parcel& parcel);
[[gnu::hot]] status_t writeToParcel(const Status& status, Parcel* parcel);

status_t readEmbeddedFromParcel(const hidl_string& string, const Parcel& parcel,
                                size_t parentHandle, size_t parentOffset);
status_t writeEmbeddedToParcel(const hidl_string& string, Parcel* parcel, size_t parentHandle,
                               size_t parentOffset);

// childHandle: what the elements name as their parent.
template <typename T>
status_t readEmbeddedFromParcel(const hidl_vec<T>& vec, const Parcel& parcel, size_t parentHandle,
                                size_t parentOffset, size_t* childHandle) {
    const size_t size = vec.size();
    const void* bytes;
    status_t status =
            parcel.readEmbeddedBuffer(size * sizeof(T), childHandle, parentHandle,
                                      parentOffset + hidl_vec<T>::kOffsetOfBuffer, &bytes);
    if (status != OK) return status;
    // What arrived says nothing true about ownership: the parcel owns the elements.
    auto* fresh = new (const_cast<hidl_vec<T>*>(&vec)) hidl_vec<T>();
    fresh->setToExternal(static_cast<T*>(const_cast<void*>(bytes)), size);
    return OK;
}

template <typename T>
status_t writeEmbeddedToParcel(const hidl_vec<T>& vec, Parcel* parcel, size_t parentHandle,
                               size_t parentOffset, size_t* childHandle) {
    return parcel->writeEmbeddedBuffer(vec.data(), vec.size() * sizeof(T), childHandle,
                                       parentHandle, parentOffset + hidl_vec<T>::kOffsetOfBuffer);
}

// The binder that carries this object: the remote one of a proxy, else the stub, made on demand and
// the same for as long as it lives. NULL when nobody knows how to make one.
sp<IBinder> getOrCreateCachedBinder(::android::hidl::base::V1_0::IBase* interface);

// A fresh proxy for a remote object; the object itself when it is one of this process and has the
// interface; else NULL.
template <typename IType, typename ProxyType, typename StubType>
sp<IType> fromBinder(const sp<IBinder>& binder) {
    if (binder == nullptr) return nullptr;
    if (binder->localBinder() == nullptr) return new ProxyType(binder);
    sp<::android::hidl::base::V1_0::IBase> base =
            static_cast<::android::hidl::base::V1_0::BnHwBase*>(binder->localBinder())->getImpl();
    if (!details::canCastInterface(base.get(), IType::descriptor)) return nullptr;
    return static_cast<IType*>(base.get());
}

}}  // namespace android::hardware
