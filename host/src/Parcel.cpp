// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include <hwbinder/Parcel.h>

#include <string.h>

#include <log/log.h>

namespace android { namespace hardware {

namespace {

constexpr uint32_t kNullObject = UINT32_MAX;
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
    if (handle != nullptr) {
        ALOGE("Descriptors cannot be passed between processes on this host");
        return INVALID_OPERATION;
    }
    return OK;
}

status_t Parcel::readNullableNativeHandleNoDup(const native_handle_t** handle) const {
    *handle = nullptr;
    return OK;
}

void Parcel::setReceived(Bytes bytes, std::vector<sp<IBinder>> objects) {
    mData = std::move(bytes);
    mObjects = std::move(objects);
    mPosition = 0;
}

}}  // namespace android::hardware
