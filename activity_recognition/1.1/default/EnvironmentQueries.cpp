#define LOG_TAG "AR_impl_Env"

#include <log/log.h>

#include "ActivityInterface.h"
#include "EnvironmentInterface.h"
#include "Queries.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
namespace {

struct SupportedEnvironments {
    static void LogUnavailable() {
        ALOGE("%s: mImpl interface is not available", "getSupportedEnvironmentsList");
    }
    static void LogSize(int count) {
        ALOGE("%s: can not get support env, list_size(%d)", "getSupportedEnvironmentsList", count);
    }
    static void LogNoMemory() { ALOGE("env new failed"); }
};

struct CurrentV1_0 {
    using Record = ActivityEventExtend;
    static Record Convert(const ar_context_event& event) {
        return ActivityInterface::convertACEToAEEV1_0(event);
    }
    static void LogUnavailable() {
        ALOGE("%s: mImpl V1_0 interface is not available", "getCurrentEnvironment");
    }
    // Shorter than version 1.1's: intended.
    static void LogSize(int count) {
        ALOGE("%s: mImpl V1_0 getCurrentENV error size(%d)", "getCurrentEnvironment", count);
    }
};

struct CurrentV1_1 {
    using Record = ActivityEventExtendV1_1;
    static Record Convert(const ar_context_event& event) {
        return ActivityInterface::convertACEToAEEV1_1(event);
    }
    static void LogUnavailable() {
        ALOGE("%s: mImpl V1_1 interface is not available", "getCurrentEnvironmentV1_1");
    }
    static void LogSize(int count) {
        ALOGE("%s: mImpl V1_1 getCurrentEnvironment error size(%d)", "getCurrentEnvironmentV1_1",
              count);
    }
};

}  // namespace

Return<void> EnvironmentInterface::getSupportedEnvironmentsList(
        getSupportedEnvironmentsList_cb answer) {
    return AnswerNames<SupportedEnvironments>(
            mImpl, &environment_interface::get_supported_environments_list, answer);
}

Return<void> EnvironmentInterface::getCurrentEnvironment(getCurrentEnvironment_cb answer) {
    return AnswerCurrent<CurrentV1_0>(mImpl, &environment_interface::get_current_environment,
                                      answer);
}

Return<void> EnvironmentInterface::getCurrentEnvironmentV1_1(getCurrentEnvironmentV1_1_cb answer) {
    return AnswerCurrent<CurrentV1_1>(mImpl, &environment_interface::get_current_environment,
                                      answer);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
