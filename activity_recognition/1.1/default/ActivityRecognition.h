// SPDX-License-Identifier: Apache-2.0
// The root object: owns the native device and hands out the two working objects.
#pragma once

#include <atomic>

#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include "ActivityInterface.h"
#include "EnvironmentInterface.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;

// No lock: a first request for a side must not race with another request for that side, and a
// process has one root object. The service asks for both sides before it registers; a side that was
// NULL then stays open to that race.
//
// Log texts, levels and the numbers in them are fixed, misspellings included: tools match on them.
class ActivityRecognition : public V1_1::IActivityRecognition {
  public:
    // Takes over the device, which it closes; the module is kept, never released.
    ActivityRecognition(activity_recognition_module* module, activity_recognition_device* device);
    ~ActivityRecognition() override;

    // Each answers NULL when the module doesn't offer the side or memory is short; the next request
    // tries again.
    Return<sp<V1_0::IActivityInterface>> getActivityInterface() override;
    Return<sp<V1_0::IEnvironmentInterface>> getEnvironmentInterface() override;
    Return<sp<V1_1::IActivityInterface>> getActivityInterfaceV1_1() override;
    Return<sp<V1_1::IEnvironmentInterface>> getEnvironmentInterfaceV1_1() override;

    // Writes the dump to the handle's descriptor, which stays the caller's; see Dump.h for options.
    // Without a descriptor nothing happens. Holds up no other call, and takes three seconds at
    // most.
    Return<void> debug(const hidl_handle& handle, const hidl_vec<hidl_string>& options) override;

  private:
    activity_recognition_device* mDevice;
    activity_recognition_module* mModule;
    sp<ActivityInterface> mActivityInterface;
    sp<EnvironmentInterface> mEnvironmentInterface;
    // The same for debug(), which comes at any time: set once each, when the side has been made.
    // A side lives as long as this object, which whoever calls debug() holds.
    std::atomic<ActivityInterface*> mShownActivity{nullptr};
    std::atomic<EnvironmentInterface*> mShownEnvironment{nullptr};
};

// What the runtime loads the library for. The name is ignored: there is one instance.
extern "C" __attribute__((visibility("default"))) V1_1::IActivityRecognition*
HIDL_FETCH_IActivityRecognition(const char* name);

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
