// SPDX-License-Identifier: Apache-2.0
// HIDL's value types. Layouts are those of the wire: a string or vector is 16 bytes, a pointer to
// the elements first, then their count and who owns them.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <cutils/native_handle.h>
#include <hidl/HidlInternal.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

namespace android {
namespace hidl { namespace base { namespace V1_0 {
struct IBase;
}}}  // namespace hidl::base::V1_0

namespace hardware {

// Told of a remote object's death, on a thread of the pool; of several objects' at once. The
// runtime keeps it only weakly: whoever links it must keep it alive.
struct hidl_death_recipient : public virtual RefBase {
    // cookie: as given to linkToDeath. who: the very proxy that was linked.
    virtual void serviceDied(uint64_t cookie,
                             const wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

// Descriptors, not owned unless it says so; 16 bytes.
struct hidl_handle {
    hidl_handle() = default;
    hidl_handle(const native_handle_t* handle) : mHandle(handle) {}
    hidl_handle(const hidl_handle& other);
    hidl_handle(hidl_handle&& other) noexcept;
    hidl_handle& operator=(const hidl_handle& other);
    hidl_handle& operator=(hidl_handle&& other) noexcept;
    hidl_handle& operator=(const native_handle_t* handle);
    ~hidl_handle() { freeHandle(); }

    // shouldOwn: to be closed and deleted with this.
    void setTo(native_handle_t* handle, bool shouldOwn = false) {
        *this = handle;
        mOwnsHandle = shouldOwn;
    }

    const native_handle_t* operator->() const { return mHandle; }
    operator const native_handle_t*() const { return mHandle; }
    const native_handle_t* getNativeHandle() const { return mHandle; }

  private:
    void freeHandle();

    details::hidl_pointer<const native_handle_t> mHandle = nullptr;
    bool mOwnsHandle = false;
    uint8_t mPad[7] __attribute__((unused)) = {};
};

// Text with an explicit length, always followed by a NUL.
struct hidl_string {
    hidl_string();
    ~hidl_string() { clear(); }
    hidl_string(const hidl_string& other);
    hidl_string(const char* text);
    hidl_string(const char* text, size_t length);
    hidl_string(const std::string& text);
    hidl_string(hidl_string&& other) noexcept;
    hidl_string& operator=(const hidl_string& other);
    hidl_string& operator=(const char* text);
    hidl_string& operator=(const std::string& text);
    hidl_string& operator=(hidl_string&& other) noexcept;

    operator std::string() const { return std::string(mBuffer, mSize); }

    const char* c_str() const { return mBuffer; }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    void clear();

    // Refers to text that somebody else keeps alive; text[length] must be NUL.
    void setToExternal(const char* text, size_t length);

    static const size_t kOffsetOfBuffer;

  private:
    void copyFrom(const char* text, size_t length);
    void moveFrom(hidl_string&& other) noexcept;

    details::hidl_pointer<const char> mBuffer;
    uint32_t mSize;
    bool mOwnsBuffer;
    uint8_t mPad[3] __attribute__((unused)) = {};
};

bool operator==(const hidl_string& a, const hidl_string& b);
bool operator<(const hidl_string& a, const hidl_string& b);
bool operator==(const hidl_string& a, const char* b);
inline bool operator==(const char* a, const hidl_string& b) {
    return b == a;
}
inline bool operator!=(const hidl_string& a, const hidl_string& b) {
    return !(a == b);
}
inline bool operator!=(const hidl_string& a, const char* b) {
    return !(a == b);
}
inline bool operator!=(const char* a, const hidl_string& b) {
    return !(b == a);
}
inline bool operator>(const hidl_string& a, const hidl_string& b) {
    return b < a;
}
inline bool operator<=(const hidl_string& a, const hidl_string& b) {
    return !(b < a);
}
inline bool operator>=(const hidl_string& a, const hidl_string& b) {
    return !(a < b);
}
std::ostream& operator<<(std::ostream& os, const hidl_string& text);

// A counted array of T.
template <typename T>
struct hidl_vec {
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    hidl_vec() : mBuffer(nullptr), mSize(0), mOwnsBuffer(true) {}
    hidl_vec(size_t size) : hidl_vec() { resize(size); }
    hidl_vec(const hidl_vec& other) : hidl_vec() { *this = other; }
    hidl_vec(hidl_vec&& other) noexcept : hidl_vec() { *this = std::move(other); }
    hidl_vec(std::initializer_list<T> list) : hidl_vec() { assign(list.begin(), list.size()); }
    hidl_vec(const std::vector<T>& other) : hidl_vec() { assign(other.data(), other.size()); }
    template <typename InputIterator,
              typename = typename std::enable_if<std::is_convertible<
                      typename std::iterator_traits<InputIterator>::iterator_category,
                      std::input_iterator_tag>::value>::type>
    hidl_vec(InputIterator first, InputIterator last) : hidl_vec(std::vector<T>(first, last)) {}
    ~hidl_vec() { release(); }

    hidl_vec& operator=(const hidl_vec& other) {
        if (this != &other) assign(other.data(), other.size());
        return *this;
    }
    hidl_vec& operator=(hidl_vec&& other) noexcept {
        if (this != &other) {
            release();
            mBuffer = other.mBuffer;
            mSize = other.mSize;
            mOwnsBuffer = other.mOwnsBuffer;
            other.mOwnsBuffer = false;
            other.release();
        }
        return *this;
    }
    // None from a braced list, as on the platform: which of these it is for would be ambiguous.
    hidl_vec& operator=(const std::vector<T>& other) {
        assign(other.data(), other.size());
        return *this;
    }

    operator std::vector<T>() const { return std::vector<T>(begin(), end()); }

    bool operator==(const hidl_vec& other) const {
        return mSize == other.mSize && std::equal(begin(), end(), other.begin());
    }
    bool operator!=(const hidl_vec& other) const { return !(*this == other); }

    // Refers to elements that somebody else keeps alive, unless shouldOwn hands them over (made
    // with new[]).
    void setToExternal(T* data, size_t size, bool shouldOwn = false) {
        if (size > UINT32_MAX) {
            details::logAlwaysFatal("external vector size exceeds 2^32 elements.");
        }
        release();
        mBuffer = data;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = shouldOwn;
    }

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    // Hands the elements over, to be freed with delete[]; they can be read here until then.
    T* releaseData() {
        if (!mOwnsBuffer && mBuffer != nullptr) resize(mSize);
        mOwnsBuffer = false;
        return mBuffer;
    }

    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }
    size_t size() const { return mSize; }

    // Keeps the first elements; new ones are value-initialised.
    void resize(size_t size) {
        if (size > UINT32_MAX)
            details::logAlwaysFatal("hidl_vec can't hold more than 2^32 elements.");
        T* grown = size > 0 ? new T[size]() : nullptr;
        for (size_t i = 0; i < std::min(size, this->size()); ++i) grown[i] = std::move(mBuffer[i]);
        release();
        mBuffer = grown;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
    }

    iterator begin() { return data(); }
    iterator end() { return data() + mSize; }
    const_iterator begin() const { return data(); }
    const_iterator end() const { return data() + mSize; }

    static const size_t kOffsetOfBuffer;

  private:
    // Value-initialising first keeps padding zero, so that records look the same on every wire.
    void assign(const T* data, size_t size) {
        if (size > UINT32_MAX)
            details::logAlwaysFatal("hidl_vec can't hold more than 2^32 elements.");
        T* copy = size > 0 ? new T[size]() : nullptr;
        std::copy(data, data + size, copy);
        release();
        mBuffer = copy;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
    }
    void release() {
        if (mOwnsBuffer) delete[] static_cast<T*>(mBuffer);
        mBuffer = nullptr;
        mSize = 0;
        mOwnsBuffer = true;
    }

    details::hidl_pointer<T> mBuffer;
    uint32_t mSize;
    bool mOwnsBuffer;
    uint8_t mPad[3] __attribute__((unused)) = {};
};

template <typename T>
const size_t hidl_vec<T>::kOffsetOfBuffer = 0;

// Fixed-size array; the host has the one-dimensional form only.
template <typename T, size_t SIZE1, size_t... SIZES>
struct hidl_array;

template <typename T, size_t SIZE1>
struct hidl_array<T, SIZE1> {
    hidl_array() = default;
    hidl_array(const T (&source)[SIZE1]) { std::copy(source, source + SIZE1, mBuffer); }
    hidl_array(const T* source) { std::copy(source, source + SIZE1, mBuffer); }
    hidl_array(const std::array<T, SIZE1>& source) {
        std::copy(source.begin(), source.end(), mBuffer);
    }

    hidl_array& operator=(const T* source) {
        std::copy(source, source + SIZE1, mBuffer);
        return *this;
    }

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }
    static constexpr size_t size() { return SIZE1; }

    bool operator==(const hidl_array& other) const {
        return std::equal(mBuffer, mBuffer + SIZE1, other.mBuffer);
    }
    bool operator!=(const hidl_array& other) const { return !(*this == other); }

    operator std::array<T, SIZE1>() const {
        std::array<T, SIZE1> array;
        std::copy(mBuffer, mBuffer + SIZE1, array.begin());
        return array;
    }

  private:
    T mBuffer[SIZE1];
};

// A set of values of an enum.
template <typename T>
using hidl_bitfield = typename std::underlying_type<T>::type;

// Shared memory is in no interface that the host serves: the layout, nothing more.
struct hidl_memory {
  private:
    hidl_handle mHandle __attribute__((aligned(8)));
    uint64_t mSize __attribute__((aligned(8), unused)) = 0;
    hidl_string mName __attribute__((aligned(8)));
};

inline std::string toString(bool value) {
    return value ? "true" : "false";
}
template <typename T>
typename std::enable_if<std::is_arithmetic<T>::value && !std::is_same<T, bool>::value,
                        std::string>::type
toString(T value) {
    return std::to_string(value);
}
inline std::string toString(const hidl_string& text) {
    return '"' + std::string(text) + '"';
}
inline std::string toString(const hidl_handle& handle) {
    return static_cast<const native_handle_t*>(handle) != nullptr ? "handle" : "nullptr";
}

namespace details {
template <typename Iterator>
std::string arrayToString(Iterator first, Iterator last) {
    std::string os = "{";
    for (Iterator it = first; it != last; ++it) {
        if (it != first) os += ", ";
        os += toString(*it);
    }
    return os + "}";
}
}  // namespace details

template <typename T>
std::string toString(const hidl_vec<T>& vec) {
    return "[" + std::to_string(vec.size()) + "]" +
           details::arrayToString(vec.data(), vec.data() + vec.size());
}
template <typename T, size_t SIZE1>
std::string toString(const hidl_array<T, SIZE1>& array) {
    return details::arrayToString(array.data(), array.data() + SIZE1);
}

namespace details {
// Generated code specialises this for each enum.
template <typename T>
constexpr std::array<T, 0> hidl_enum_values = {};
}  // namespace details

static_assert(sizeof(hidl_string) == 16, "wire layout");
static_assert(sizeof(hidl_vec<char>) == 16, "wire layout");
static_assert(sizeof(hidl_handle) == 16, "wire layout");
static_assert(sizeof(hidl_memory) == 40, "wire layout");

}  // namespace hardware
}  // namespace android
