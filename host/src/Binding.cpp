// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include <unistd.h>

#include <hidl/HidlBinderSupport.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/Static.h>
#include <log/log.h>
#include <utils/Mutex.h>

namespace android { namespace hardware {

using ::android::hidl::base::V1_0::IBase;

namespace details {

BnConstructorMap& getBnConstructorMap() {
    static auto* map = new BnConstructorMap;
    return *map;
}

BsConstructorMap& getBsConstructorMap() {
    static auto* map = new BsConstructorMap;
    return *map;
}

ConcurrentMap<const IBase*, wp<BHwBinder>>* const gBnMap =
        new ConcurrentMap<const IBase*, wp<BHwBinder>>;
ConcurrentMap<wp<IBase>, SchedPrio>* const gServicePrioMap =
        new ConcurrentMap<wp<IBase>, SchedPrio>;
ConcurrentMap<wp<IBase>, bool>* const gServiceSidMap = new ConcurrentMap<wp<IBase>, bool>;

bool canCastInterface(IBase* interface, const char* castTo, bool emitError) {
    if (interface == nullptr) return false;
    bool found = false;
    Return<void> result = interface->interfaceChain([&](const hidl_vec<hidl_string>& descriptors) {
        for (const hidl_string& descriptor : descriptors) found |= descriptor == castTo;
    });
    if (!result.isOk() && emitError) {
        ALOGE("Cannot ask for the interfaces of an object that should be %s: %s", castTo,
              result.description().c_str());
    }
    return result.isOk() && found;
}

std::string getDescriptor(IBase* interface) {
    std::string descriptor;
    if (interface == nullptr) return descriptor;
    Return<void> result =
            interface->interfaceDescriptor([&](const hidl_string& answer) { descriptor = answer; });
    if (!result.isOk()) ALOGE("Cannot ask an object what it is: %s", result.description().c_str());
    return descriptor;
}

int32_t getPidIfSharable() {
    return getpid();
}

bool debuggable() {
    return false;
}

}  // namespace details

hidl_binder_death_recipient::hidl_binder_death_recipient(const sp<hidl_death_recipient>& recipient,
                                                         uint64_t cookie, const sp<IBase>& base)
    : mRecipient(recipient), mCookie(cookie), mBase(base) {}

void hidl_binder_death_recipient::binderDied(const wp<IBinder>&) {
    sp<hidl_death_recipient> recipient = mRecipient.promote();
    if (recipient != nullptr) recipient->serviceDied(mCookie, mBase);
}

bool hidl_binder_death_recipient::swapIfEqual(IBinder::DeathRecipient* other) {
    auto* link = dynamic_cast<hidl_binder_death_recipient*>(other);
    if (link == nullptr || link->mRecipient != mRecipient || link->mBase != mBase) return false;
    std::swap(mCookie, link->mCookie);
    return true;
}

status_t readFromParcel(Status* status, const Parcel& parcel) {
    int32_t exception;
    status_t error = parcel.readInt32(&exception);
    if (error == OK && exception == Status::EX_NONE) {
        *status = Status::ok();
        return OK;
    }
    std::string message;
    if (error == OK) error = parcel.readText(&message);
    if (error != OK) {
        status->setFromStatusT(error);
        return error;
    }
    status->setException(exception, message.c_str());
    return OK;
}

status_t writeToParcel(const Status& status, Parcel* parcel) {
    status_t error = parcel->writeInt32(status.exceptionCode());
    if (error != OK || status.isOk()) return error;
    return parcel->writeText(status.exceptionMessage(), strlen(status.exceptionMessage()));
}

status_t readEmbeddedFromParcel(const hidl_string& string, const Parcel& parcel,
                                size_t parentHandle, size_t parentOffset) {
    const size_t length = string.size();
    size_t handle;
    const void* bytes;
    status_t status = parcel.readEmbeddedBuffer(
            length + 1, &handle, parentHandle, parentOffset + hidl_string::kOffsetOfBuffer, &bytes);
    if (status != OK) return status;
    const char* text = static_cast<const char*>(bytes);
    if (text[length] != '\0') return BAD_VALUE;
    // What arrived says nothing true about ownership: the parcel owns the text.
    auto* fresh = new (const_cast<hidl_string*>(&string)) hidl_string();
    fresh->setToExternal(text, length);
    return OK;
}

status_t writeEmbeddedToParcel(const hidl_string& string, Parcel* parcel, size_t parentHandle,
                               size_t parentOffset) {
    size_t handle;
    return parcel->writeEmbeddedBuffer(string.c_str(), string.size() + 1, &handle, parentHandle,
                                       parentOffset + hidl_string::kOffsetOfBuffer);
}

sp<IBinder> getOrCreateCachedBinder(IBase* interface) {
    if (interface == nullptr) return nullptr;
    // Every remote object is a generated proxy, and those are interfaces over a binder.
    if (interface->isRemote()) return IInterface::asBinder(dynamic_cast<IInterface*>(interface));

    // Making a stub and storing it is one step: an object has one stub at a time.
    static auto* mutex = new Mutex;
    Mutex::Autolock lock(*mutex);
    sp<BHwBinder> stub = details::gBnMap->get(interface, nullptr).promote();
    if (stub != nullptr) return stub;
    const std::string descriptor = details::getDescriptor(interface);
    auto construct = details::getBnConstructorMap().get(descriptor, nullptr);
    if (!construct) {
        ALOGE("No stub is known for interface '%s'", descriptor.c_str());
        return nullptr;
    }
    sp<IBinder> binder = construct(static_cast<void*>(interface));
    details::gBnMap->set(interface, binder->localBinder());
    return binder;
}

bool interfacesEqual(const sp<IBase>& a, const sp<IBase>& b) {
    if (a == nullptr || b == nullptr) return a == b;
    if (a->isRemote() != b->isRemote()) return false;
    if (!a->isRemote()) return a == b;
    return getOrCreateCachedBinder(a.get()) == getOrCreateCachedBinder(b.get());
}

}}  // namespace android::hardware
