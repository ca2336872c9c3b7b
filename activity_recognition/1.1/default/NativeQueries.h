// SPDX-License-Identifier: Apache-2.0
// Queries that a client's call answers from the native module: name lists and current states. Both
// sides and versions answer alike.
#pragma once

#include <memory>
#include <new>

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <log/log.h>
#include <zaltho/activity_recognition_native.h>

#include "ClientTable.h"
#include "Conversions.h"
#include "InFlight.h"
#include "LogTexts.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// answer: the caller's result callback, called before this returns. site: the slot's.
template <typename Native, typename Answer>
::android::hardware::Return<void> AnswerNames(const Native* impl, int (*Native::*slot)(char***),
                                              const Answer& answer, const QueryTexts& texts,
                                              const CallSite& site) {
    using ::android::hardware::hidl_string;
    using ::android::hardware::hidl_vec;
    if (impl == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, texts.noTable, texts.method);
        answer(hidl_vec<hidl_string>());
        return ::android::hardware::Void();
    }
    char** list = nullptr;
    const int count = CallModule(site, ClientKey(CallingPidOrZero()), impl, slot, &list);
    if (count < 1 || list == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, texts.badCount, texts.method, count);
        answer(hidl_vec<hidl_string>());
        return ::android::hardware::Void();
    }
    const std::unique_ptr<hidl_string[]> names(new (std::nothrow) hidl_string[count]);
    if (names == nullptr) {
        // The one path without an answer. The generated stub ends the process on it.
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, "%s", texts.noMemory);
        return ::android::hardware::Void();
    }
    for (int i = 0; i < count; ++i) names[i] = list[i];
    hidl_vec<hidl_string> result;
    result.setToExternal(names.get(), count);
    answer(result);
    return ::android::hardware::Void();
}

// As above. A snapshot of more than ACTIVITY_RECOGNITION_MAX_CURRENT records is refused whole.
template <typename Native, typename Record, typename Answer>
::android::hardware::Return<void> AnswerCurrent(const Native* impl,
                                                int (*Native::*slot)(ar_context_event**),
                                                Record (*convert)(const ar_context_event&),
                                                const Answer& answer, const QueryTexts& texts,
                                                const CallSite& site) {
    using Records = ::android::hardware::hidl_vec<Record>;
    if (impl == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, texts.noTable, texts.method);
        answer(Records());
        return ::android::hardware::Void();
    }
    ar_context_event* events = nullptr;
    const int count = CallModule(site, ClientKey(CallingPidOrZero()), impl, slot, &events);
    if (!CountFits(count, ACTIVITY_RECOGNITION_MAX_CURRENT) || events == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, texts.badCount, texts.method, count);
        answer(Records());
        return ::android::hardware::Void();
    }
    answer(CopyForClient(ConvertAll(events, count, convert)));
    return ::android::hardware::Void();
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
