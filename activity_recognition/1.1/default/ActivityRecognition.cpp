// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "AR_impl_Act"

#include "ActivityRecognition.h"

#include <new>

#include <hardware/hardware.h>
#include <log/log.h>

#include "Dump.h"
#include "HandleWriter.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

// Makes a side on its first request. *side stays NULL when the module doesn't offer it or memory is
// short. shown: told of what was made. notOffered: the log's format, of the method.
template <typename Slot, typename Side>
void MakeOnce(activity_recognition_device* device, Slot slot, sp<Side>* side,
              std::atomic<Side*>* shown, const char* notOffered, const char* method,
              const char* noMemory) {
    if (*side != nullptr) return;
    const auto* impl = (device->*slot)(device);
    if (impl == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, notOffered, method);
        return;
    }
    *side = new (std::nothrow) Side(impl);
    shown->store(side->get(), std::memory_order_release);
    if (*side == nullptr) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s", noMemory);
}

}  // namespace

ActivityRecognition::ActivityRecognition(activity_recognition_module* module,
                                         activity_recognition_device* device)
    : mDevice(device), mModule(module) {}

ActivityRecognition::~ActivityRecognition() {
    if (mDevice != nullptr) mDevice->common.close(&mDevice->common);
    ALOGI("Deconstruct ActivityRecognition");
    mDevice = nullptr;
    mModule = nullptr;
}

Return<sp<V1_0::IActivityInterface>> ActivityRecognition::getActivityInterface() {
    ALOGI("1.1 Activity compatible 1.0");
    (void)getActivityInterfaceV1_1().isOk();  // unchecked, a failure would end the process
    return mActivityInterface;
}

Return<sp<V1_0::IEnvironmentInterface>> ActivityRecognition::getEnvironmentInterface() {
    ALOGI("1.1 ENV compatible 1.0");
    (void)getEnvironmentInterfaceV1_1().isOk();
    return mEnvironmentInterface;
}

Return<sp<V1_1::IActivityInterface>> ActivityRecognition::getActivityInterfaceV1_1() {
    MakeOnce(mDevice, &activity_recognition_device::get_activity_interface, &mActivityInterface,
             &mShownActivity,
             AR_FORMAT("%s ActivityInterface interface not implemented by ar HAL", ""),
             "getActivityInterfaceV1_1", "getActivityInterfaceV1_1 mActivityInterface new failed");
    return mActivityInterface;
}

Return<sp<V1_1::IEnvironmentInterface>> ActivityRecognition::getEnvironmentInterfaceV1_1() {
    MakeOnce(mDevice, &activity_recognition_device::get_environment_interface,
             &mEnvironmentInterface, &mShownEnvironment,
             AR_FORMAT("%s EnvironmentInterface interface not implemented by ar HAL", ""),
             "getEnvironmentInterfaceV1_1",
             "getEnvironmentInterfaceV1_1 mEnvironmentInterface new failed");
    return mEnvironmentInterface;
}

Return<void> ActivityRecognition::debug(const hidl_handle& handle,
                                        const hidl_vec<hidl_string>& options) {
    const native_handle_t* const native = handle.getNativeHandle();
    if (native == nullptr || native->numFds < 1) return Void();
    WriteToHandle(native->data[0], Dump(options, mShownActivity.load(std::memory_order_acquire),
                                        mShownEnvironment.load(std::memory_order_acquire)));
    return Void();
}

V1_1::IActivityRecognition* HIDL_FETCH_IActivityRecognition(const char* /*name*/) {
    const hw_module_t* module = nullptr;
    int rc = hw_get_module(ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID, &module);
    if (rc != 0) {
        ALOGE("hw_get_module %s failed: %d", ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID, rc);
        return nullptr;
    }
    hw_device_t* device = nullptr;
    rc = module->methods->open(module, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE, &device);
    if (rc != 0) {
        ALOGI("activity_recognition_impl V1.1 open %s result: %d",
              ACTIVITY_RECOGNITION_HARDWARE_INTERFACE, rc);
        return nullptr;
    }
    auto* root = new (std::nothrow) ActivityRecognition(
            reinterpret_cast<activity_recognition_module*>(const_cast<hw_module_t*>(module)),
            reinterpret_cast<activity_recognition_device*>(device));
    if (root == nullptr) {
        // The device stays open: only a root object closes it.
        ALOGE("iface new failed");
        return nullptr;
    }
    ALOGI("activity_recognition_impl V1.1 open %s result: %d",
          ACTIVITY_RECOGNITION_HARDWARE_INTERFACE, rc);
    return root;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
