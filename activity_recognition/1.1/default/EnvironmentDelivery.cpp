#define LOG_TAG "AR_impl_Env"

#include <log/log.h>

#include "ActivityInterface.h"
#include "EnvironmentInterface.h"
#include "Queries.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using ::android::Mutex;
using ::android::hardware::hidl_vec;

namespace {

// Fixed: intended, whoever reads these logs matches on the whole text.
constexpr int kEnvChangedMark = 73;

// The texts' differences are intended, as on the activity side.
struct ChangedV1_1 {
    static Return<void> Send(const sp<V1_1::IEnvironmentChangedCallback>& callback,
                             const hidl_vec<ActivityEventExtendV1_1>& events) {
        return callback->onEnvironmentChangedV1_1(events);
    }
    static void LogNullCallback(unsigned long pid) {
        ALOGE("envChangedCb V1_1 callback is nullptr, PID[%lu]", pid);
    }
    static void LogFailed(unsigned long pid) {
        ALOGE("%s: Unable to invoke onEnvironmentChanged V1_1, PID[%lu]", "EnvChangedCb", pid);
    }
};

struct ChangedV1_0 {
    static Return<void> Send(const sp<V1_0::IEnvironmentChangedCallback>& callback,
                             const hidl_vec<ActivityEventExtend>& events) {
        return callback->onEnvironmentChanged(events);
    }
    static void LogNullCallback(unsigned long pid) {
        ALOGE("onEnvironmentChanged V1_0 callback is nullptr, PID[%lu]", pid);
    }
    static void LogFailed(unsigned long pid) {
        ALOGE("%s: Unable to invoke onEnvironmentChanged V1_0 PID[%lu]",
              "env_extend_changed_cb_v1_0", pid);
    }
};

}  // namespace

void EnvironmentInterface::EnvChangedCb(const ar_context_event* events, int count) {
    if (events == nullptr || !CountFits(count, ACTIVITY_RECOGNITION_MAX_EVENTS)) {
        ALOGE("(%s:%d) Invalid envChangedCb. Count: %d", "EnvChangedCb", kEnvChangedMark, count);
        return;
    }
    const auto eventsV1_1 = ConvertAll(events, count, ActivityInterface::convertACEToAEEV1_1);
    const auto eventsV1_0 = ConvertAll(events, count, ActivityInterface::convertACEToAEEV1_0);
    Mutex::Autolock lock(mListMutex);
    Broadcast<ChangedV1_1>(mClientVectorV1_1, eventsV1_1);
    env_extend_changed_cb_v1_0(eventsV1_0);
}

void EnvironmentInterface::env_extend_changed_cb_v1_0(
        const std::vector<ActivityEventExtend>& events) {
    Broadcast<ChangedV1_0>(mClientVectorV1_0, events);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
