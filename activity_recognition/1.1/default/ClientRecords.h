// Lists of client records, padding included: records go to other processes byte for byte, and a
// plain assignment may leave out padding and so send along whatever stood there before.
#pragma once

#include <stddef.h>
#include <string.h>

#include <vector>

#include <hidl/HidlSupport.h>
#include <vendor/zaltho/hardware/activity_recognition/1.0/types.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/types.h>
#include <zaltho/activity_recognition_native.h>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using V1_0::ActivityEvent;
using V1_0::ActivityEventExtend;

#define AR_RECORD_AT(type, field, offset) \
    static_assert(offsetof(type, field) == (offset), #type "." #field " moved")
#define AR_RECORD_SIZE(type, size) static_assert(sizeof(type) == (size), #type " changed size")

AR_RECORD_SIZE(V1_0::OtherParams, 48);
AR_RECORD_AT(V1_0::OtherParams, params, 0);
AR_RECORD_AT(V1_0::OtherParams, name, 32);

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

// Assigns a record with its padding.
inline void AssignWhole(const ActivityEvent& from, ActivityEvent* to) {
    memcpy(to, &from, sizeof(*to));
}
inline void AssignWhole(const ActivityEventV1_1& from, ActivityEventV1_1* to) {
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

// A copy for one client.
template <typename Record>
::android::hardware::hidl_vec<Record> CopyForClient(const std::vector<Record>& records) {
    ::android::hardware::hidl_vec<Record> copy;
    copy.resize(records.size());
    for (size_t i = 0; i < records.size(); ++i) AssignWhole(records[i], &copy[i]);
    return copy;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
