// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include <hwbinder/Parcel.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <log/log.h>

namespace android { namespace hardware {

namespace {

constexpr uint32_t kNullObject = UINT32_MAX;
constexpr uint32_t kNullHandle = UINT32_MAX;
constexpr uint64_t kNoParent = UINT64_MAX;
constexpr size_t kAlignment = 8;

// What precedes a buffer's bytes. A handle is the offset of this header.
struct BufferHeader {
    uint64_t length;
    uint64_t parent;        // handle of the buffer that points here, or kNoParent
    uint64_t parentOffset;  // of the pointer, in the parent's bytes
};
static_assert(sizeof(BufferHeader) % kAlignment == 0, "bytes follow the header aligned");

size_t roundUp(size_t size) {
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

}  // namespace

void Parcel::align() {
    const size_t gap = roundUp(mData.size()) - mData.size();
    if (gap > 0) memset(mData.extend(gap), 0, gap);
}

bool Parcel::alignForReading() const {
    const size_t position = roundUp(mPosition);
    if (position > mData.size()) return false;
    mPosition = position;
    return true;
}

status_t Parcel::readBool(bool* value) const {
    uint32_t number;
    status_t status = readUint32(&number);
    if (status == OK) *value = number != 0;
    return status;
}

status_t Parcel::writeText(const char* text, size_t length) {
    writeUint32(static_cast<uint32_t>(length));
    return append(text, length);
}

status_t Parcel::readText(std::string* text) const {
    uint32_t length;
    status_t status = readUint32(&length);
    if (status != OK) return status;
    if (length > mData.size() - mPosition) return NOT_ENOUGH_DATA;
    text->assign(reinterpret_cast<const char*>(mData.data()) + mPosition, length);
    mPosition += length;
    return OK;
}

status_t Parcel::writeInterfaceToken(const char* interface) {
    return writeText(interface, strlen(interface));
}

bool Parcel::enforceInterface(const char* interface) const {
    uint32_t length;
    const size_t expected = strlen(interface);
    if (readUint32(&length) != OK || length > mData.size() - mPosition) return false;
    const bool same =
            length == expected && memcmp(mData.data() + mPosition, interface, length) == 0;
    if (!same) {
        ALOGW("A call for interface %.*s reached an object of %s", static_cast<int>(length),
              reinterpret_cast<const char*>(mData.data()) + mPosition, interface);
    }
    mPosition += length;
    return same;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& binder) {
    if (binder == nullptr) return writeUint32(kNullObject);
    mObjects.push_back(binder);
    return writeUint32(static_cast<uint32_t>(mObjects.size() - 1));
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* binder) const {
    uint32_t index;
    status_t status = readUint32(&index);
    if (status != OK) return status;
    if (index == kNullObject) {
        *binder = nullptr;
        return OK;
    }
    if (index >= mObjects.size()) return BAD_INDEX;
    *binder = mObjects[index];
    return OK;
}

status_t Parcel::writeBuffer(const void* bytes, size_t length, size_t* handle) {
    return writeEmbeddedBuffer(bytes, length, handle, kNoParent, 0);
}

status_t Parcel::writeEmbeddedBuffer(const void* bytes, size_t length, size_t* handle,
                                     size_t parentHandle, size_t parentOffset) {
    align();
    *handle = mData.size();
    if (parentHandle != kNoParent) {
        // This process's addresses are nobody else's business.
        memset(mData.data() + parentHandle + sizeof(BufferHeader) + parentOffset, 0,
               sizeof(uint64_t));
    }
    const BufferHeader header = {length, parentHandle, parentOffset};
    mData.reserve(mData.size() + sizeof(header) + length);
    append(&header, sizeof(header));
    if (length > 0) append(bytes, length);
    return OK;
}

status_t Parcel::readBuffer(size_t length, size_t* handle, const void** bytes) const {
    return readEmbeddedBuffer(length, handle, kNoParent, 0, bytes);
}

status_t Parcel::readEmbeddedBuffer(size_t length, size_t* handle, size_t parentHandle,
                                    size_t parentOffset, const void** bytes) const {
    BufferHeader header;
    if (!alignForReading()) return NOT_ENOUGH_DATA;
    *handle = mPosition;
    status_t status = extract(&header, sizeof(header));
    if (status != OK) return status;
    if (header.length != length || header.parent != parentHandle ||
        header.parentOffset != parentOffset) {
        return BAD_VALUE;
    }
    if (length > mData.size() - mPosition) return NOT_ENOUGH_DATA;
    // Generated code reads through pointers to non-const, hence a received parcel's bytes are
    // writable.
    uint8_t* data = const_cast<uint8_t*>(mData.data());
    *bytes = length > 0 ? data + mPosition : nullptr;
    if (parentHandle != kNoParent) {
        // parentHandle came from an earlier read here, so its header lies inside the data.
        uint64_t parentLength;
        memcpy(&parentLength, data + parentHandle, sizeof(parentLength));
        if (parentLength < sizeof(uint64_t) || parentOffset > parentLength - sizeof(uint64_t)) {
            return BAD_VALUE;
        }
        const uint64_t pointer = reinterpret_cast<uintptr_t>(*bytes);
        memcpy(data + parentHandle + sizeof(BufferHeader) + parentOffset, &pointer,
               sizeof(pointer));
    }
    mPosition += length;
    return OK;
}

status_t Parcel::writeNativeHandleNoDup(const native_handle_t* handle) {
    if (handle == nullptr) return writeUint32(kNullHandle);
    if (handle->numInts != 0 || handle->numFds < 0 || handle->numFds > 1) {
        ALOGE("A handle of %d descriptors and %d ints cannot be passed between processes on this "
              "host, one descriptor can",
              handle->numFds, handle->numInts);
        return INVALID_OPERATION;
    }
    if (handle->numFds == 0) return writeUint32(0);
    if (mHandle != nullptr) {
        ALOGE("A second descriptor cannot be passed between processes in one call on this host");
        return INVALID_OPERATION;
    }
    const int descriptor = fcntl(handle->data[0], F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) {
        const status_t status = -errno;
        ALOGE("Descriptor %d cannot be passed on: %s", handle->data[0], strerror(-status));
        return status;
    }
    setDescriptor(descriptor);
    return writeUint32(1);
}

status_t Parcel::readNullableNativeHandleNoDup(const native_handle_t** handle) const {
    static const native_handle_t empty = {sizeof(empty), 0, 0, {}};
    uint32_t descriptors;
    status_t status = readUint32(&descriptors);
    if (status != OK) return status;
    if (descriptors == kNullHandle) {
        *handle = nullptr;
    } else if (descriptors == 0) {
        *handle = &empty;
    } else if (descriptors == 1 && mHandle != nullptr) {
        *handle = mHandle;
    } else {
        return BAD_VALUE;
    }
    return OK;
}

void Parcel::setDescriptor(int descriptor) {
    mHandle = native_handle_create(1, 0);
    LOG_ALWAYS_FATAL_IF(mHandle == nullptr, "No memory for a handle");
    mHandle->data[0] = descriptor;
}

void Parcel::dropHandle() {
    native_handle_close(mHandle);
    native_handle_delete(mHandle);
}

void Parcel::setReceived(Bytes bytes, std::vector<sp<IBinder>> objects) {
    mData = std::move(bytes);
    mObjects = std::move(objects);
    mPosition = 0;
}

}}  // namespace android::hardware
