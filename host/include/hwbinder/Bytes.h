// Bytes of a parcel or message: grows at its end, and leaves what is about to be overwritten as it
// is. A thread keeps the room of the last one that went, for its next.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace android { namespace hardware {

class Bytes {
  public:
    Bytes() = default;
    Bytes(Bytes&& other) noexcept { swap(other); }
    Bytes& operator=(Bytes&& other) noexcept {
        Bytes(std::move(other)).swap(*this);
        return *this;
    }
    ~Bytes() {
        if (mCapacity > 0 && mCapacity <= kMaxSpare && mCapacity > spare().capacity) {
            spare() = {std::move(mRoom), mCapacity};
        }
    }

    uint8_t* data() { return mRoom.get(); }
    const uint8_t* data() const { return mRoom.get(); }
    size_t size() const { return mSize; }
    size_t capacity() const { return mCapacity; }

    // What is behind the old content has no value yet.
    void reserve(size_t capacity) {
        if (capacity <= mCapacity) return;
        Room room = std::move(spare());
        spare() = {};
        if (room.capacity < capacity) {
            room.capacity = std::max({capacity, 2 * mCapacity, kLeast});
            room.bytes.reset(new uint8_t[room.capacity]);
        }
        if (mSize > 0) memcpy(room.bytes.get(), mRoom.get(), mSize);
        mRoom = std::move(room.bytes);
        mCapacity = room.capacity;
    }
    // The first of `count` bytes more, which have no value yet.
    uint8_t* extend(size_t count) {
        reserve(mSize + count);
        mSize += count;
        return mRoom.get() + mSize - count;
    }
    void append(const void* bytes, size_t count) {
        if (count > 0) memcpy(extend(count), bytes, count);
    }
    void truncate(size_t size) { mSize = size; }

  private:
    struct Room {
        std::unique_ptr<uint8_t[]> bytes;
        size_t capacity = 0;
    };
    static constexpr size_t kLeast = 256;
    static constexpr size_t kMaxSpare = 64 * 1024;

    static Room& spare() {
        thread_local Room room;
        return room;
    }
    void swap(Bytes& other) {
        std::swap(mRoom, other.mRoom);
        std::swap(mSize, other.mSize);
        std::swap(mCapacity, other.mCapacity);
    }

    std::unique_ptr<uint8_t[]> mRoom;
    size_t mSize = 0;
    size_t mCapacity = 0;
};

}}  // namespace android::hardware
