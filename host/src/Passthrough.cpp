// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include <dirent.h>
#include <dlfcn.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include <android/hidl/manager/1.0/IServiceManager.h>
#include <hidl/HidlPassthroughSupport.h>
#include <hidl/ServiceManagement.h>
#include <hidl/Static.h>
#include <log/log.h>

#include "HardwareFolders.h"

namespace android { namespace hardware {

using ::android::hidl::base::V1_0::IBase;
using ::android::hidl::manager::V1_0::IServiceManager;
using ::android::hidl::manager::V1_0::IServiceNotification;

namespace {

// Files of a folder that can be the implementation, in a fixed order.
std::vector<std::string> candidates(const std::string& folder, const std::string& prefix) {
    std::vector<std::string> files;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder.c_str()), closedir);
    while (dir != nullptr) {
        const dirent* entry = readdir(dir.get());
        if (entry == nullptr) break;
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) == 0 && name.size() > 3 &&
            name.compare(name.size() - 3, 3, ".so") == 0) {
            files.push_back(folder + "/" + name);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

sp<IBase> fetch(const std::string& file, const std::string& symbol, const std::string& instance) {
    dlerror();
    void* library = dlopen(file.c_str(), RTLD_LAZY);
    if (library == nullptr) {
        ALOGE("Failed to dlopen %s: %s", file.c_str(), dlerror());
        return nullptr;
    }
    auto factory = reinterpret_cast<IBase* (*)(const char*)>(dlsym(library, symbol.c_str()));
    if (factory == nullptr) {
        ALOGE("Passthrough lookup opened %s but could not find symbol %s", file.c_str(),
              symbol.c_str());
        dlclose(library);
        return nullptr;
    }
    // The library stays: its object may live as long as the process.
    sp<IBase> object = factory(instance.c_str());
    if (object == nullptr) {
        ALOGE("Could not find instance '%s' in library %s", instance.c_str(), file.c_str());
        dlclose(library);
    }
    return object;
}

class PassthroughServiceManager : public IServiceManager {
  public:
    Return<sp<IBase>> get(const hidl_string& fqName, const hidl_string& name) override {
        const std::string descriptor = fqName;
        const size_t colons = descriptor.find("::");
        if (colons == std::string::npos) return sp<IBase>();
        const std::string prefix = descriptor.substr(0, colons) + "-impl";
        const std::string symbol = "HIDL_FETCH_" + descriptor.substr(colons + 2);
        for (const std::string& folder : host::hardwareFolders()) {
            for (const std::string& file : candidates(folder, prefix)) {
                sp<IBase> object = fetch(file, symbol, name);
                if (object != nullptr) return object;
            }
        }
        ALOGE("No library %s*.so gives %s/%s in %s", prefix.c_str(), descriptor.c_str(),
              name.c_str(), host::describeHardwareFolders().c_str());
        return sp<IBase>();
    }

    Return<bool> add(const hidl_string&, const sp<IBase>&) override { return false; }
    Return<void> list(list_cb _hidl_cb) override {
        _hidl_cb({});
        return Void();
    }
    Return<void> listByInterface(const hidl_string&, listByInterface_cb _hidl_cb) override {
        _hidl_cb({});
        return Void();
    }
    Return<bool> registerForNotifications(const hidl_string&, const hidl_string&,
                                          const sp<IServiceNotification>&) override {
        return false;
    }
};

}  // namespace

sp<IServiceManager> getPassthroughServiceManager() {
    static auto* manager = new sp<IServiceManager>(new PassthroughServiceManager);
    return *manager;
}

namespace details {

sp<IBase> wrapPassthroughInternal(const sp<IBase>& interface) {
    const std::string descriptor = getDescriptor(interface.get());
    auto construct = getBsConstructorMap().get(descriptor, nullptr);
    if (!construct) {
        ALOGE("No passthrough wrapper is known for interface '%s'", descriptor.c_str());
        return nullptr;
    }
    return construct(static_cast<void*>(interface.get()));
}

}  // namespace details
}}  // namespace android::hardware
