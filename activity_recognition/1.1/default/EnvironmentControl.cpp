#define LOG_TAG "AR_impl_Env"

#include <log/log.h>

#include "EnvironmentInterface.h"
#include "NativeParams.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
namespace {

// Clients learn that the module refused, not with which code.
int32_t Result(int nativeResult) {
    return nativeResult == 0 ? 0 : 1;
}

}  // namespace

// The three refusals use the words of a missing table for a name that is too long, too: intended.

Return<int32_t> EnvironmentInterface::initEnvironment(uint32_t environment,
                                                      const OtherParams& params) {
    if (mImpl == nullptr || !NameFits(params)) {
        ALOGE("%s: initEnvironment mImpl interface is not available", "initEnvironment");
        return 1;
    }
    const other_params native = ToNativeParams(params);
    return Result(mImpl->init_environment(environment, &native));
}

Return<int32_t> EnvironmentInterface::exitEnvironment(uint32_t environment,
                                                      const OtherParams& params) {
    if (mImpl == nullptr || !NameFits(params)) {
        ALOGE("%s: exitEnvironment mImpl interface is not available", "exitEnvironment");
        return 1;
    }
    const other_params native = ToNativeParams(params);
    return Result(mImpl->exit_environment(environment, &native));
}

Return<int32_t> EnvironmentInterface::enableEnvironment(uint32_t environment, uint32_t eventType,
                                                        int64_t reportLatencyNs,
                                                        const OtherParams& params) {
    if (mImpl == nullptr || !NameFits(params)) {
        ALOGE("%s: enableEnvironment mImpl interface is not available", "enableEnvironment");
        return 1;
    }
    const other_params native = ToNativeParams(params);
    return Result(mImpl->enable_environment(environment, eventType, reportLatencyNs, &native));
}

Return<int32_t> EnvironmentInterface::disableEnvironment(uint32_t environment, uint32_t eventType) {
    if (mImpl == nullptr) {
        ALOGE("%s: mImpl interface is not available", "disableEnvironment");
        return 1;
    }
    return Result(mImpl->disable_environment(environment, eventType));
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
