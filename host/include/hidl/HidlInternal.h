// SPDX-License-Identifier: Apache-2.0
// The smallest parts of HIDL: tags, the 8-byte pointer, the fatal log.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace android { namespace hardware { namespace details {

// Tags by which generated classes say what they are.
struct i_tag;     // pure interface
struct bnhw_tag;  // stub
struct bphw_tag;  // proxy
struct bs_tag;    // passthrough wrapper

std::string toHexString(uint64_t value);

// Logs and ends the process.
[[noreturn]] void logAlwaysFatal(const char* message);

// A pointer that takes 8 bytes on the wire and in memory on every target.
template <typename T>
struct hidl_pointer {
    hidl_pointer() : _pad(0) {}
    hidl_pointer(T* ptr) : _pad(0) { mPointer = ptr; }
    hidl_pointer(const hidl_pointer<T>& other) : _pad(other._pad) {}
    hidl_pointer<T>& operator=(const hidl_pointer<T>& other) {
        _pad = other._pad;
        return *this;
    }
    hidl_pointer<T>& operator=(T* ptr) {
        mPointer = ptr;
        return *this;
    }
    operator T*() const { return mPointer; }
    T* operator->() const { return mPointer; }
    void* data() const { return reinterpret_cast<void*>(mPointer); }

  private:
    union {
        T* mPointer;
        uint64_t _pad;
    };
};

// Base of generated classes. The host has no instrumentation; the generated code for it is
// compiled out unless __ANDROID_DEBUGGABLE__ is defined.
class HidlInstrumentor {
  public:
    HidlInstrumentor(const std::string& package, const std::string& interface) {
        (void)package;
        (void)interface;
    }
    virtual ~HidlInstrumentor() = default;

  protected:
    void configureInstrumentation(bool log = true) { (void)log; }
};

}}}  // namespace android::hardware::details
