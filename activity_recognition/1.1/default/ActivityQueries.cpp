#define LOG_TAG "AR_impl"

#include <log/log.h>

#include "ActivityInterface.h"
#include "Queries.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
namespace {

struct SupportedActivities {
    static void LogUnavailable() {
        ALOGE("%s: mImpl interface is not available", "getSupportedActivitiesList");
    }
    static void LogSize(int count) {
        ALOGE("%s: can not get support activity, list_size(%d)", "getSupportedActivitiesList",
              count);
    }
    static void LogNoMemory() { ALOGE("getSupportedActivitiesList hidl string new failed"); }
};

struct CurrentV1_0 {
    using Record = ActivityEventExtend;
    static Record Convert(const ar_context_event& event) {
        return ActivityInterface::convertACEToAEEV1_0(event);
    }
    static void LogUnavailable() {
        ALOGE("%s: mImpl V1_0 interface is not available", "getCurrentActivity");
    }
    static void LogSize(int count) {
        ALOGE("%s: mImpl V1_0 getCurrentActivity error size(%d)", "getCurrentActivity", count);
    }
};

struct CurrentV1_1 {
    using Record = ActivityEventExtendV1_1;
    static Record Convert(const ar_context_event& event) {
        return ActivityInterface::convertACEToAEEV1_1(event);
    }
    static void LogUnavailable() {
        ALOGE("%s: mImpl V1_1 interface is not available", "getCurrentActivityV1_1");
    }
    static void LogSize(int count) {
        ALOGE("%s: mImpl V1_1 getCurrentActivity error size(%d)", "getCurrentActivityV1_1", count);
    }
};

}  // namespace

Return<void> ActivityInterface::getSupportedActivitiesList(getSupportedActivitiesList_cb answer) {
    return AnswerNames<SupportedActivities>(
            mImpl, &activity_interface::get_supported_activities_list, answer);
}

Return<void> ActivityInterface::getCurrentActivity(getCurrentActivity_cb answer) {
    return AnswerCurrent<CurrentV1_0>(mImpl, &activity_interface::get_current_activity, answer);
}

Return<void> ActivityInterface::getCurrentActivityV1_1(getCurrentActivityV1_1_cb answer) {
    return AnswerCurrent<CurrentV1_1>(mImpl, &activity_interface::get_current_activity, answer);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
