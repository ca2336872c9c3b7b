// SPDX-License-Identifier: Apache-2.0
// How a call across processes ended: transport status, and the value that came back.
#pragma once

#include <stdint.h>

#include <iosfwd>
#include <string>
#include <utility>

#include <hidl/HidlInternal.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

namespace android { namespace hardware {

class Status final {
  public:
    // Values are on the wire.
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_HAS_REPLY_HEADER = -128,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return Status(); }
    static Status fromExceptionCode(int32_t exceptionCode);
    static Status fromExceptionCode(int32_t exceptionCode, const char* message);
    static Status fromStatusT(status_t status);

    Status() = default;

    void setException(int32_t exceptionCode, const char* message);
    [[gnu::hot]] void setFromStatusT(status_t status);

    int32_t exceptionCode() const { return mException; }
    const char* exceptionMessage() const { return mMessage.c_str(); }
    // The transport's error; OK unless exceptionCode() is EX_TRANSACTION_FAILED.
    status_t transactionError() const {
        return mException == EX_TRANSACTION_FAILED ? mErrorCode : static_cast<status_t>(OK);
    }
    bool isOk() const { return mException == EX_NONE; }

    std::string description() const;

  private:
    int32_t mException = EX_NONE;
    status_t mErrorCode = OK;
    std::string mMessage;
};

std::ostream& operator<<(std::ostream& os, const Status& status);

namespace details {

// Base of every Return. As on the platform, a failure that nobody looked at ends the process when
// it is destroyed, so that no caller gets used to dropping results.
class return_status {
  public:
    return_status() = default;
    return_status(const Status& status) : mStatus(status) {}
    return_status(return_status&& other) noexcept { *this = std::move(other); }
    return_status& operator=(return_status&& other) noexcept;
    ~return_status() {
        if (!mCheckedStatus) assertOk();
    }

    bool isOk() const {
        mCheckedStatus = true;
        return mStatus.isOk();
    }
    // Whether the call failed because the other process is gone.
    bool isDeadObject() const {
        mCheckedStatus = true;
        return mStatus.transactionError() == DEAD_OBJECT;
    }
    std::string description() const { return mStatus.description(); }
    // Ends the process unless the call went well.
    void assertOk() const {
        if (!isOk()) die();
    }

  private:
    [[noreturn]] void die() const;

    Status mStatus;
    mutable bool mCheckedStatus = false;
};

}  // namespace details

// The value of a two-way call. Reading it asserts that the call went well.
template <typename T>
class Return : public details::return_status {
  public:
    Return(T value) : mVal(std::move(value)) {}
    Return(const Status& status) : details::return_status(status) {}

    operator T() const {
        assertOk();
        return mVal;
    }
    // Does not end the process when the call failed.
    T withDefault(T value) { return isOk() ? mVal : value; }

  private:
    T mVal{};
};

template <typename T>
class Return<sp<T>> : public details::return_status {
  public:
    Return(sp<T> value) : mVal(std::move(value)) {}
    Return(T* value) : mVal(value) {}
    // An interface where its ancestor is expected.
    template <typename U>
    Return(sp<U> value) : mVal(std::move(value)) {}
    template <typename U>
    Return(Return<sp<U>>&& other)
        : details::return_status(std::move(other)), mVal(std::move(other.mVal)) {}
    Return(const Status& status) : details::return_status(status) {}

    operator sp<T>() const {
        assertOk();
        return mVal;
    }
    sp<T> withDefault(sp<T> value) { return isOk() ? mVal : value; }

  private:
    template <typename U>
    friend class Return;

    sp<T> mVal;
};

template <>
class Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& status) : details::return_status(status) {}
};

inline Return<void> Void() {
    return Return<void>();
}

}}  // namespace android::hardware
