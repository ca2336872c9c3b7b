// SPDX-License-Identifier: Apache-2.0
// What services, clients and generated code call of the transport.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlBinderSupport.h>
#include <hidl/HidlSupport.h>
#include <hidl/HidlTransportUtils.h>
#include <hidl/ServiceManagement.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>

namespace android { namespace hardware {

// maxThreads: how many incoming calls are served at a time, 1 to 64. callerWillJoin: the caller is
// going to be one of them through joinRpcThreadpool().
void configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);

// Serves for as long as the process lives.
void joinRpcThreadpool();

// Whether two interface pointers stand for the same object, also when they are different proxies.
bool interfacesEqual(const sp<::android::hidl::base::V1_0::IBase>& a,
                     const sp<::android::hidl::base::V1_0::IBase>& b);

namespace details {

template <typename IChild, typename IParent, typename BpChild>
Return<sp<IChild>> castInterface(sp<IParent> parent, const char* childIndicator, bool emitError) {
    if (parent == nullptr) return sp<IChild>();
    if (!canCastInterface(parent.get(), childIndicator, emitError)) return sp<IChild>();
    if (parent->isRemote()) return sp<IChild>(new BpChild(getOrCreateCachedBinder(parent.get())));
    return sp<IChild>(static_cast<IChild*>(parent.get()));
}

template <typename BpType>
sp<typename BpType::Pure> getServiceInternal(const std::string& instance, bool retry,
                                             bool getStub) {
    using IType = typename BpType::Pure;
    sp<::android::hidl::base::V1_0::IBase> base =
            getRawServiceInternal(IType::descriptor, instance, retry, getStub);
    if (base == nullptr) return nullptr;
    Return<sp<IType>> service = IType::castFrom(base);
    return service.isOk() ? sp<IType>(service) : nullptr;
}

}  // namespace details
}}  // namespace android::hardware
