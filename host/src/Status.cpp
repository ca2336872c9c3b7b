// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include <hidl/Status.h>

#include <string.h>

#include <ostream>

#include <log/log.h>

namespace android { namespace hardware {

namespace {

std::string exceptionToString(int32_t exceptionCode) {
    switch (exceptionCode) {
#define ZNAME(name)    \
    case Status::name: \
        return #name
        ZNAME(EX_NONE);
        ZNAME(EX_SECURITY);
        ZNAME(EX_BAD_PARCELABLE);
        ZNAME(EX_ILLEGAL_ARGUMENT);
        ZNAME(EX_NULL_POINTER);
        ZNAME(EX_ILLEGAL_STATE);
        ZNAME(EX_NETWORK_MAIN_THREAD);
        ZNAME(EX_UNSUPPORTED_OPERATION);
        ZNAME(EX_HAS_REPLY_HEADER);
        ZNAME(EX_TRANSACTION_FAILED);
#undef ZNAME
        default:
            return std::to_string(exceptionCode);
    }
}

std::string errorToString(status_t error) {
    switch (error) {
#define ZNAME(name) \
    case name:      \
        return #name
        ZNAME(OK);
        ZNAME(UNKNOWN_ERROR);
        ZNAME(NO_MEMORY);
        ZNAME(INVALID_OPERATION);
        ZNAME(BAD_VALUE);
        ZNAME(BAD_TYPE);
        ZNAME(NAME_NOT_FOUND);
        ZNAME(PERMISSION_DENIED);
        ZNAME(DEAD_OBJECT);
        ZNAME(FAILED_TRANSACTION);
        ZNAME(BAD_INDEX);
        ZNAME(NOT_ENOUGH_DATA);
        ZNAME(WOULD_BLOCK);
        ZNAME(TIMED_OUT);
        ZNAME(UNKNOWN_TRANSACTION);
        ZNAME(UNEXPECTED_NULL);
#undef ZNAME
        default:
            return std::to_string(error) + " (" + strerror(-error) + ")";
    }
}

}  // namespace

Status Status::fromExceptionCode(int32_t exceptionCode) {
    return fromExceptionCode(exceptionCode, "");
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    Status status;
    status.setException(exceptionCode, message);
    return status;
}

Status Status::fromStatusT(status_t error) {
    Status status;
    status.setFromStatusT(error);
    return status;
}

void Status::setException(int32_t exceptionCode, const char* message) {
    mException = exceptionCode;
    mErrorCode = exceptionCode == EX_TRANSACTION_FAILED ? static_cast<status_t>(FAILED_TRANSACTION)
                                                        : static_cast<status_t>(OK);
    mMessage = message;
}

void Status::setFromStatusT(status_t status) {
    mException = status == OK ? EX_NONE : EX_TRANSACTION_FAILED;
    mErrorCode = status;
    mMessage.clear();
}

std::string Status::description() const {
    if (mException == EX_NONE) return "No error";
    std::string text = "Status(" + exceptionToString(mException) + "): '";
    if (mException == EX_TRANSACTION_FAILED) text += errorToString(mErrorCode) + ": ";
    return text + mMessage + "'";
}

std::ostream& operator<<(std::ostream& os, const Status& status) {
    return os << status.description();
}

namespace details {

return_status& return_status::operator=(return_status&& other) noexcept {
    if (this != &other) {
        if (!mCheckedStatus) assertOk();
        mStatus = std::move(other.mStatus);
        // This is what will be looked at from now on.
        mCheckedStatus = other.mCheckedStatus;
        other.mCheckedStatus = true;
    }
    return *this;
}

void return_status::die() const {
    LOG_ALWAYS_FATAL("Failed HIDL return status not checked: %s", description().c_str());
}

}  // namespace details
}}  // namespace android::hardware
