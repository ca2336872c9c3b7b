// The root object: owns the native device and hands out the two working objects.
#pragma once

#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include "ActivityInterface.h"
#include "EnvironmentInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Without a lock: a first request for a side must not race with another request for it, nor may a
// process have a second root object. The service asks for both sides before anybody else can. A
// side that is NULL then is asked for again with each request, and once the module offers it, two
// such requests at the same time race.
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
    template <typename Slot, typename Side>
    void MakeOnce(Slot slot, sp<Side>* side, const char* notOffered, const char* method,
                  const char* noMemory);

    activity_recognition_device* mDevice;
    activity_recognition_module* mModule;
    sp<ActivityInterface> mActivityInterface;
    sp<EnvironmentInterface> mEnvironmentInterface;
};

// What the runtime loads the library for. The name is ignored: there is one instance.
extern "C" __attribute__((visibility("default"))) V1_1::IActivityRecognition*
HIDL_FETCH_IActivityRecognition(const char* name);

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
