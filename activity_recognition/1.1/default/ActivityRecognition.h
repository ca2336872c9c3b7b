// The root object: owns the native device and hands out the two working objects.
#pragma once

#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include "ActivityInterface.h"
#include "EnvironmentInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
// Without a lock: a first request for an interface must not race with another first request for
// it, and the process uses one root object. The service sees to both.
class ActivityRecognition : public V1_1::IActivityRecognition {
  public:
    // Takes over the device, which it closes; the module is kept, never released.
    ActivityRecognition(activity_recognition_module* module, activity_recognition_device* device);
    ~ActivityRecognition() override;

    // Each answers NULL when the module doesn't offer the side; the next request asks it again.
    Return<sp<V1_0::IActivityInterface>> getActivityInterface() override;
    Return<sp<V1_0::IEnvironmentInterface>> getEnvironmentInterface() override;
    Return<sp<V1_1::IActivityInterface>> getActivityInterfaceV1_1() override;
    Return<sp<V1_1::IEnvironmentInterface>> getEnvironmentInterfaceV1_1() override;

  private:
    activity_recognition_device* mDevice;
    activity_recognition_module* mModule;
    sp<ActivityInterface> mActivityInterface;
    sp<EnvironmentInterface> mEnvironmentInterface;
};

// What the runtime loads the library for. The name is ignored: there is one instance.
extern "C" __attribute__((visibility("default"))) V1_1::IActivityRecognition*
HIDL_FETCH_IActivityRecognition(const char* name);

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
