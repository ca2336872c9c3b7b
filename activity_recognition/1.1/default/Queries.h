// Queries that a client's call answers from the native module: name lists and current states. Both
// sides and versions answer alike; a Version holds the texts.
#pragma once

#include <string.h>

#include <new>
#include <vector>

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <zaltho/activity_recognition_native.h>

#include "ClientRecords.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
// Whether a count lies in 1 to most: one comparison, 0 and negative counts wrap.
inline bool CountFits(int count, uint32_t most) {
    return static_cast<uint32_t>(count) - 1 < most;
}

// Version: LogUnavailable(), LogSize(count), LogNoMemory().
template <typename Version, typename Native, typename Answer>
::android::hardware::Return<void> AnswerNames(const Native* impl, int (*Native::*slot)(char***),
                                              const Answer& answer) {
    using ::android::hardware::hidl_string;
    using ::android::hardware::hidl_vec;
    if (impl == nullptr) {
        Version::LogUnavailable();
        answer(hidl_vec<hidl_string>());
        return ::android::hardware::Void();
    }
    char** list = nullptr;
    const int count = (impl->*slot)(&list);
    if (count < 1 || list == nullptr) {
        Version::LogSize(count);
        answer(hidl_vec<hidl_string>());
        return ::android::hardware::Void();
    }
    hidl_string* names = new (std::nothrow) hidl_string[count];
    if (names == nullptr) {
        // No answer at all: intended. The runtime treats that as fatal, so short memory never
        // passes for an empty list.
        Version::LogNoMemory();
        return ::android::hardware::Void();
    }
    for (int i = 0; i < count; ++i) names[i] = list[i];
    hidl_vec<hidl_string> result;
    result.setToExternal(names, count);
    answer(result);
    delete[] names;
    return ::android::hardware::Void();
}

// Version: Record, Convert(native), LogUnavailable(), LogSize(count).
template <typename Version, typename Native, typename Answer>
::android::hardware::Return<void> AnswerCurrent(const Native* impl,
                                                int (*Native::*slot)(ar_context_event**),
                                                const Answer& answer) {
    using Records = ::android::hardware::hidl_vec<typename Version::Record>;
    if (impl == nullptr) {
        Version::LogUnavailable();
        answer(Records());
        return ::android::hardware::Void();
    }
    ar_context_event* events = nullptr;
    const int count = (impl->*slot)(&events);
    if (!CountFits(count, ACTIVITY_RECOGNITION_MAX_CURRENT) || events == nullptr) {
        Version::LogSize(count);
        answer(Records());
        return ::android::hardware::Void();
    }
    answer(CopyForClient(ConvertAll(events, count, Version::Convert)));
    return ::android::hardware::Void();
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
