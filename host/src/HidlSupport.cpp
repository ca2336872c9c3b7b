// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include <hidl/HidlSupport.h>

#include <stdio.h>

#include <ostream>

#include <log/log.h>

namespace android { namespace hardware {

namespace details {

std::string toHexString(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

void logAlwaysFatal(const char* message) {
    LOG_ALWAYS_FATAL("%s", message);
}

}  // namespace details

hidl_handle::hidl_handle(const hidl_handle& other) {
    *this = other;
}

hidl_handle::hidl_handle(hidl_handle&& other) noexcept {
    *this = std::move(other);
}

hidl_handle& hidl_handle::operator=(const hidl_handle& other) {
    if (this == &other) return *this;
    freeHandle();
    if (other.mHandle != nullptr) {
        mHandle = native_handle_clone(other.mHandle);
        if (mHandle == nullptr)
            details::logAlwaysFatal("Failed to clone native_handle in hidl_handle.");
        mOwnsHandle = true;
    }
    return *this;
}

hidl_handle& hidl_handle::operator=(hidl_handle&& other) noexcept {
    if (this == &other) return *this;
    freeHandle();
    mHandle = other.mHandle;
    mOwnsHandle = other.mOwnsHandle;
    other.mHandle = nullptr;
    other.mOwnsHandle = false;
    return *this;
}

hidl_handle& hidl_handle::operator=(const native_handle_t* handle) {
    freeHandle();
    mHandle = handle;
    return *this;
}

void hidl_handle::freeHandle() {
    if (mOwnsHandle && mHandle != nullptr) {
        auto* handle = const_cast<native_handle_t*>(static_cast<const native_handle_t*>(mHandle));
        native_handle_close(handle);
        native_handle_delete(handle);
    }
    mHandle = nullptr;
    mOwnsHandle = false;
}

const size_t hidl_string::kOffsetOfBuffer = 0;

static const char kEmpty[] = "";

hidl_string::hidl_string() : mBuffer(kEmpty), mSize(0), mOwnsBuffer(false) {}

hidl_string::hidl_string(const hidl_string& other) : hidl_string() {
    copyFrom(other.c_str(), other.size());
}

hidl_string::hidl_string(const char* text) : hidl_string() {
    if (text != nullptr) copyFrom(text, strlen(text));
}

hidl_string::hidl_string(const char* text, size_t length) : hidl_string() {
    copyFrom(text, length);
}

hidl_string::hidl_string(const std::string& text) : hidl_string() {
    copyFrom(text.c_str(), text.size());
}

hidl_string::hidl_string(hidl_string&& other) noexcept : hidl_string() {
    moveFrom(std::move(other));
}

hidl_string& hidl_string::operator=(const hidl_string& other) {
    if (this != &other) {
        clear();
        copyFrom(other.c_str(), other.size());
    }
    return *this;
}

hidl_string& hidl_string::operator=(const char* text) {
    return *this = hidl_string(text);
}

hidl_string& hidl_string::operator=(const std::string& text) {
    return *this = hidl_string(text);
}

hidl_string& hidl_string::operator=(hidl_string&& other) noexcept {
    if (this != &other) {
        clear();
        moveFrom(std::move(other));
    }
    return *this;
}

void hidl_string::clear() {
    if (mOwnsBuffer) delete[] static_cast<const char*>(mBuffer);
    mBuffer = kEmpty;
    mSize = 0;
    mOwnsBuffer = false;
}

void hidl_string::setToExternal(const char* text, size_t length) {
    if (length > UINT32_MAX) details::logAlwaysFatal("string size can't exceed 2^32 bytes.");
    if (text[length] != '\0') {
        details::logAlwaysFatal("Cannot set external string that is not NUL-terminated.");
    }
    clear();
    mBuffer = text;
    mSize = static_cast<uint32_t>(length);
}

void hidl_string::copyFrom(const char* text, size_t length) {
    if (length >= UINT32_MAX) details::logAlwaysFatal("string size can't exceed 2^32 bytes.");
    if (length == 0) return;
    char* copy = new char[length + 1];
    memcpy(copy, text, length);
    copy[length] = '\0';
    mBuffer = copy;
    mSize = static_cast<uint32_t>(length);
    mOwnsBuffer = true;
}

void hidl_string::moveFrom(hidl_string&& other) noexcept {
    mBuffer = other.mBuffer;
    mSize = other.mSize;
    mOwnsBuffer = other.mOwnsBuffer;
    other.mOwnsBuffer = false;
    other.clear();
}

bool operator==(const hidl_string& a, const hidl_string& b) {
    return a.size() == b.size() && memcmp(a.c_str(), b.c_str(), a.size()) == 0;
}

bool operator==(const hidl_string& a, const char* b) {
    return strcmp(a.c_str(), b) == 0;
}

bool operator<(const hidl_string& a, const hidl_string& b) {
    return std::string(a) < std::string(b);
}

std::ostream& operator<<(std::ostream& os, const hidl_string& text) {
    return os.write(text.c_str(), static_cast<std::streamsize>(text.size()));
}

}}  // namespace android::hardware
