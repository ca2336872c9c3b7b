// SPDX-License-Identifier: Apache-2.0
#include <hwbinder/Bytes.h>

#include <algorithm>

namespace android { namespace hardware {

namespace {

constexpr size_t kLeast = 256;
constexpr size_t kMaxSpare = 64 * 1024;

uint8_t* allocate(size_t capacity) {
    return new uint8_t[Bytes::kHeadroom + capacity] + Bytes::kHeadroom;
}

void deallocate(uint8_t* room) {
    if (room != nullptr) delete[](room - Bytes::kHeadroom);
}

// Two, for a call and its answer. Without a destructor, since calls may be made as late as in
// destructors of other objects of the thread or the process.
struct Spares {
    struct Room {
        uint8_t* room;
        size_t capacity;
    };
    Room small;
    Room large;
    bool gone;  // nothing is kept any more
};
thread_local Spares tSpares = {};

struct SparesEnd {
    ~SparesEnd() {
        const Spares spares = std::exchange(tSpares, {{}, {}, /*gone=*/true});
        deallocate(spares.small.room);
        deallocate(spares.large.room);
    }
    void arm() {}
};
thread_local SparesEnd tSparesEnd;

}  // namespace

void Bytes::grow(size_t capacity) {
    Spares& spares = tSpares;
    Spares::Room& spare = spares.small.capacity >= capacity ? spares.small : spares.large;
    uint8_t* room;
    if (spare.capacity >= capacity) {
        room = std::exchange(spare.room, nullptr);
        capacity = std::exchange(spare.capacity, 0);
    } else {
        capacity = std::max({capacity, 2 * mCapacity, kLeast});
        room = allocate(capacity);
    }
    if (mSize > 0) memcpy(room, mRoom, mSize);
    deallocate(mRoom);
    mRoom = room;
    mCapacity = capacity;
}

void Bytes::release(uint8_t* room, size_t capacity) {
    Spares& spares = tSpares;
    if (spares.gone) return deallocate(room);
    tSparesEnd.arm();
    if (capacity > spares.large.capacity && capacity <= kMaxSpare) {
        std::swap(room, spares.large.room);
        std::swap(capacity, spares.large.capacity);
    }
    if (capacity > spares.small.capacity && capacity <= kMaxSpare) {
        std::swap(room, spares.small.room);
        spares.small.capacity = capacity;
    }
    deallocate(room);
}

Bytes Bytes::copy() const {
    Bytes copy;
    if (mSize == 0) return copy;
    copy.mRoom = allocate(mSize);
    copy.mCapacity = copy.mSize = mSize;
    memcpy(copy.mRoom, mRoom, mSize);
    return copy;
}

}}  // namespace android::hardware
