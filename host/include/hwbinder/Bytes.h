// SPDX-License-Identifier: Apache-2.0
// Bytes of a parcel or message: grows at its end, leaves what is about to be overwritten as it is,
// and has room in front for a message's header. A thread keeps the room of the last ones that went,
// for its next.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <utility>

namespace android { namespace hardware {

class Bytes {
  public:
    // In front of data(); keeps data() aligned for anything.
    static constexpr size_t kHeadroom = 64;

    Bytes() = default;
    Bytes(Bytes&& other) noexcept { swap(other); }
    Bytes& operator=(Bytes&& other) noexcept {
        Bytes(std::move(other)).swap(*this);
        return *this;
    }
    ~Bytes() {
        if (mRoom != nullptr) release(mRoom, mCapacity);
    }

    // NULL when nothing was reserved.
    uint8_t* data() { return mRoom; }
    const uint8_t* data() const { return mRoom; }
    size_t size() const { return mSize; }
    size_t capacity() const { return mCapacity; }
    // The headroom's end, data(); not part of the content.
    uint8_t* front() const { return mRoom; }

    // What is behind the content has no value yet.
    void reserve(size_t capacity) {
        if (capacity > mCapacity) grow(capacity);
    }
    // The first of `count` bytes more, which have no value yet.
    uint8_t* extend(size_t count) {
        reserve(mSize + count);
        mSize += count;
        return mRoom + mSize - count;
    }
    void append(const void* bytes, size_t count) {
        if (count > 0) memcpy(extend(count), bytes, count);
    }
    // size: at most the capacity.
    void setSize(size_t size) { mSize = size; }
    // With no more room than its content needs: for what is kept.
    Bytes copy() const;

  private:
    [[gnu::hot]] void grow(size_t capacity);
    [[gnu::hot]] static void release(uint8_t* room, size_t capacity);
    void swap(Bytes& other) {
        std::swap(mRoom, other.mRoom);
        std::swap(mSize, other.mSize);
        std::swap(mCapacity, other.mCapacity);
    }

    uint8_t* mRoom = nullptr;  // behind the headroom
    size_t mSize = 0;
    size_t mCapacity = 0;
};

}}  // namespace android::hardware
