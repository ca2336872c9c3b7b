// SPDX-License-Identifier: Apache-2.0
// The content of one call or reply: scalars, objects and buffers, in the order of writing.
//
// A buffer is written by copy: a header, then its bytes, 8-aligned. A buffer that another one
// points to names its parent's header and the offset of the pointer in the parent; reading it
// checks both and puts the pointer right. So no address of the other process is ever followed, and
// every length is checked against what arrived.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include <cutils/native_handle.h>
#include <hwbinder/Binder.h>
#include <hwbinder/Bytes.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

namespace android { namespace hardware {

class Parcel {
  public:
    Parcel() = default;
    ~Parcel() {
        if (mHandle != nullptr) dropHandle();
    }
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    // The first thing in every call: the interface that its code belongs to.
    [[gnu::hot]] status_t writeInterfaceToken(const char* interface);
    [[gnu::hot]] bool enforceInterface(const char* interface) const;

    status_t writeBool(bool value) { return writeScalar<uint32_t>(value); }
    status_t writeInt32(int32_t value) { return writeScalar(value); }
    status_t writeUint32(uint32_t value) { return writeScalar(value); }
    status_t writeInt64(int64_t value) { return writeScalar(value); }
    // Text outside any buffer, with its length.
    status_t writeText(const char* text, size_t length);

    status_t readBool(bool* value) const;
    status_t readInt32(int32_t* value) const { return readScalar(value); }
    status_t readUint32(uint32_t* value) const { return readScalar(value); }
    status_t readInt64(int64_t* value) const { return readScalar(value); }
    status_t readText(std::string* text) const;

    // NULL is a value like any other.
    status_t writeStrongBinder(const sp<IBinder>& binder);
    status_t readNullableStrongBinder(sp<IBinder>* binder) const;

    // handle: what embedded buffers name as their parent.
    [[gnu::hot]] status_t writeBuffer(const void* bytes, size_t length, size_t* handle);
    [[gnu::hot]] status_t writeEmbeddedBuffer(const void* bytes, size_t length, size_t* handle,
                                              size_t parentHandle, size_t parentOffset);
    // length: what the buffer must have. bytes stay valid and writable as long as the parcel.
    [[gnu::hot]] status_t readBuffer(size_t length, size_t* handle, const void** bytes) const;
    [[gnu::hot]] status_t readEmbeddedBuffer(size_t length, size_t* handle, size_t parentHandle,
                                             size_t parentOffset, const void** bytes) const;

    // A handle without ints and with no more than one descriptor, of which a two-way call, and its
    // reply, carries one; INVALID_OPERATION and a log line for any other. The descriptor is dup'ed,
    // since a reply leaves when what it was made of has gone. NULL is a value like any other.
    status_t writeNativeHandleNoDup(const native_handle_t* handle);
    // The handle and its descriptor are the parcel's, and go with it.
    status_t readNullableNativeHandleNoDup(const native_handle_t** handle) const;

    // For the transport.
    const Bytes& bytes() const { return mData; }
    const std::vector<sp<IBinder>>& objects() const { return mObjects; }
    // Of the handle that it carries; -1: none.
    int descriptor() const { return mHandle == nullptr ? -1 : mHandle->data[0]; }
    // Replaces the content by what arrived and starts reading it.
    [[gnu::hot]] void setReceived(Bytes bytes, std::vector<sp<IBinder>> objects);
    // What arrived with it, which it takes. To be called once.
    [[gnu::cold]] void setDescriptor(int descriptor);

  private:
    template <typename T>
    status_t writeScalar(T value) {
        return append(&value, sizeof(value));
    }
    template <typename T>
    status_t readScalar(T* value) const {
        return extract(value, sizeof(*value));
    }

    status_t append(const void* bytes, size_t length) {
        mData.append(bytes, length);
        return OK;
    }
    status_t extract(void* bytes, size_t length) const {
        if (length > mData.size() - mPosition) return NOT_ENOUGH_DATA;
        memcpy(bytes, mData.data() + mPosition, length);
        mPosition += length;
        return OK;
    }
    [[gnu::hot]] void align();
    [[gnu::hot]] bool alignForReading() const;
    [[gnu::cold]] void dropHandle();

    Bytes mData;
    std::vector<sp<IBinder>> mObjects;
    native_handle_t* mHandle = nullptr;  // owned, with its one descriptor
    mutable size_t mPosition = 0;
};

}}  // namespace android::hardware
