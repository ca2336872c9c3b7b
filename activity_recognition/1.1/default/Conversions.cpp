// SPDX-License-Identifier: Apache-2.0
#include "Conversions.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

// The service never reads past the field, even if the module leaves out the terminator.
::android::hardware::hidl_string NameOf(const ar_context_event& event) {
    return {event.name, strnlen(event.name, sizeof(event.name))};
}

}  // namespace

ActivityEvent RecordConversions::convertAEToAEV1_0(const activity_event& event) {
    ActivityEvent record;
    ConvertWhole(event, &record);
    return record;
}

ActivityEventV1_1 RecordConversions::convertAEToAEV1_1(const activity_event& event) {
    ActivityEventV1_1 record;
    ConvertWhole(event, &record);
    return record;
}

ActivityEventExtend RecordConversions::convertACEToAEEV1_0(const ar_context_event& event) {
    ActivityEventExtend record;
    memset(static_cast<void*>(&record), 0, offsetof(ActivityEventExtend, name));
    record.eventType = event.event_type;
    record.activity = event.activity;
    record.timestamp = event.timestamp;
    record.value = event.value;
    memcpy(record.contextData.data(), event.context_data, sizeof(event.context_data));
    record.name = NameOf(event);
    return record;
}

ActivityEventExtendV1_1 RecordConversions::convertACEToAEEV1_1(const ar_context_event& event) {
    static_assert(offsetof(ActivityEventExtendV1_1, name) == offsetof(ar_context_event, name),
                  "the records are alike up to the name");
    ActivityEventExtendV1_1 record;
    memcpy(static_cast<void*>(&record), &event, offsetof(ar_context_event, name));
    record.name = NameOf(event);
    return record;
}

other_params ToNativeParams(const OtherParams& params) {
    other_params native;
    memset(&native, 0, sizeof(native));
    memcpy(native.params, params.params.data(), sizeof(native.params));
    memcpy(native.name, params.name.c_str(), params.name.size());
    return native;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
