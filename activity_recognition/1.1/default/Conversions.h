// SPDX-License-Identifier: Apache-2.0
// Records on their way between the native module and clients, in both directions.
//
// Lists of client records are made padding included: they go to other processes byte for byte, and
// a plain assignment may leave out padding and so send along whatever stood there before.
#pragma once

#include <stddef.h>
#include <string.h>

#include <type_traits>
#include <vector>

#include <hidl/HidlSupport.h>
#include <vendor/zaltho/hardware/activity_recognition/1.0/types.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/types.h>
#include <zaltho/activity_recognition_native.h>

#include "RequestTables.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

using V1_0::ActivityEvent;
using V1_0::ActivityEventExtend;
using V1_0::OtherParams;

#define AR_RECORD_AT(type, field, offset) \
    static_assert(offsetof(type, field) == (offset), #type "." #field " moved")
#define AR_RECORD_SIZE(type, size) static_assert(sizeof(type) == (size), #type " changed size")

AR_RECORD_SIZE(OtherParams, 48);
AR_RECORD_AT(OtherParams, params, 0);
AR_RECORD_AT(OtherParams, name, 32);

AR_RECORD_SIZE(ActivityEvent, 16);
AR_RECORD_AT(ActivityEvent, eventType, 0);
AR_RECORD_AT(ActivityEvent, activity, 4);
AR_RECORD_AT(ActivityEvent, timestamp, 8);

AR_RECORD_SIZE(ActivityEventV1_1, 24);
AR_RECORD_AT(ActivityEventV1_1, eventType, 0);
AR_RECORD_AT(ActivityEventV1_1, activity, 4);
AR_RECORD_AT(ActivityEventV1_1, timestamp, 8);
AR_RECORD_AT(ActivityEventV1_1, extra, 16);

AR_RECORD_SIZE(ActivityEventExtend, 72);
AR_RECORD_AT(ActivityEventExtend, eventType, 0);
AR_RECORD_AT(ActivityEventExtend, activity, 4);
AR_RECORD_AT(ActivityEventExtend, timestamp, 8);
AR_RECORD_AT(ActivityEventExtend, value, 16);
AR_RECORD_AT(ActivityEventExtend, contextData, 24);
AR_RECORD_AT(ActivityEventExtend, name, 56);

AR_RECORD_SIZE(ActivityEventExtendV1_1, 72);
AR_RECORD_AT(ActivityEventExtendV1_1, eventType, 0);
AR_RECORD_AT(ActivityEventExtendV1_1, activity, 4);
AR_RECORD_AT(ActivityEventExtendV1_1, timestamp, 8);
AR_RECORD_AT(ActivityEventExtendV1_1, extra, 16);
AR_RECORD_AT(ActivityEventExtendV1_1, value, 20);
AR_RECORD_AT(ActivityEventExtendV1_1, contextData, 24);
AR_RECORD_AT(ActivityEventExtendV1_1, name, 56);

#undef AR_RECORD_AT
#undef AR_RECORD_SIZE

// Plain records from the module, padding zero.
inline void ConvertWhole(const activity_event& event, ActivityEvent* record) {
    memset(record, 0, sizeof(*record));
    record->eventType = event.event_type;
    record->activity = event.activity;
    record->timestamp = event.timestamp;
}
inline void ConvertWhole(const activity_event& event, ActivityEventV1_1* record) {
    constexpr size_t kAlike = offsetof(activity_event, reserved);
    static_assert(offsetof(ActivityEventV1_1, extra) == offsetof(activity_event, extra),
                  "the records are alike up to the padding");
    memcpy(record, &event, kAlike);
    memset(reinterpret_cast<char*>(record) + kAlike, 0, sizeof(*record) - kAlike);
}

// From the module to clients. The base of ActivityInterface, which has them as members; nobody
// makes one. Each starts from a zero-filled record. The version 1.0 form of an extended record has
// no extra, and value in its place: clients of that version are built on this layout.
struct RecordConversions {
    static ActivityEvent convertAEToAEV1_0(const activity_event& event);
    static ActivityEventV1_1 convertAEToAEV1_1(const activity_event& event);
    static ActivityEventExtend convertACEToAEEV1_0(const ar_context_event& event);
    static ActivityEventExtendV1_1 convertACEToAEEV1_1(const ar_context_event& event);
};

// Whether a client's parameters have room in the native form. A longer name is refused before any
// native call.
inline bool NameFits(const OtherParams& params) {
    return params.name.size() <= ACTIVITY_RECOGNITION_NAME_SIZE;
}

// Requires NameFits(params). A name of exactly ACTIVITY_RECOGNITION_NAME_SIZE characters fills the
// field without a terminator; the module takes it as a bounded field.
other_params ToNativeParams(const OtherParams& params);

// Whether a count of native records lies in 1 to most: one comparison, 0 and negative counts wrap.
inline bool CountFits(int count, uint32_t most) {
    return static_cast<uint32_t>(count) - 1 < most;
}

// Assigns a record with its padding.
inline void AssignWhole(const ActivityEvent& from, ActivityEvent* to) {
    memcpy(to, &from, sizeof(*to));
}
inline void AssignWhole(const ActivityEventV1_1& from, ActivityEventV1_1* to) {
    memcpy(to, &from, sizeof(*to));
}
inline void AssignWhole(const ActivityEventV1_1& from, ActivityEvent* to) {
    static_assert(offsetof(ActivityEventV1_1, extra) == sizeof(ActivityEvent),
                  "a version 1.0 record is what stands before extra");
    memcpy(to, &from, sizeof(*to));
}
template <typename Extended>
void AssignWhole(const Extended& from, Extended* to) {
    memcpy(static_cast<void*>(to), &from, offsetof(Extended, name));
    to->name = from.name;
}

// Converts native records in their order.
template <typename Record, typename Native>
std::vector<Record> ConvertAll(const Native* events, int count, Record (*convert)(const Native&)) {
    std::vector<Record> records(count);  // value-initialised: padding is zero
    for (int i = 0; i < count; ++i) AssignWhole(convert(events[i]), &records[i]);
    return records;
}

template <typename Record>
Record* NewCopy(const std::vector<Record>& records, std::true_type /*plain bytes*/) {
    auto* const copy = new Record[records.size()];
    memcpy(copy, records.data(), records.size() * sizeof(Record));
    return copy;
}
template <typename Record>
Record* NewCopy(const std::vector<Record>& records, std::false_type) {
    auto* const copy = new Record[records.size()]();
    for (size_t i = 0; i < records.size(); ++i) AssignWhole(records[i], &copy[i]);
    return copy;
}

// A copy for one client.
template <typename Record>
::android::hardware::hidl_vec<Record> CopyForClient(const std::vector<Record>& records) {
    ::android::hardware::hidl_vec<Record> copy;
    if (records.empty()) return copy;
    copy.setToExternal(NewCopy(records, std::is_trivially_copyable<Record>()), records.size(),
                       /*shouldOwn=*/true);
    return copy;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
