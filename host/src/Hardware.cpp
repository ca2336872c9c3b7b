// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "HAL"

#include <hardware/hardware.h>

#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <log/log.h>

#include "HardwareFolders.h"

using android::hardware::host::describeHardwareFolders;
using android::hardware::host::hardwareFolders;

// What a device tries after the id: the value of ro.hardware, then "default".
static std::vector<std::string> variants() {
    const char* hardware = getenv("HIDL_HOST_HARDWARE");
    if (hardware == nullptr || *hardware == '\0') return {"default"};
    return {hardware, "default"};
}

static int load(const std::string& path, const std::string& id, const hw_module_t** module) {
    void* library = dlopen(path.c_str(), RTLD_NOW);
    if (library == nullptr) {
        ALOGE("load: module=%s\n%s", path.c_str(), dlerror());
        return -EINVAL;
    }
    auto* found = static_cast<hw_module_t*>(dlsym(library, HAL_MODULE_INFO_SYM_AS_STR));
    if (found == nullptr) {
        ALOGE("load: couldn't find symbol %s in %s", HAL_MODULE_INFO_SYM_AS_STR, path.c_str());
        dlclose(library);
        return -EINVAL;
    }
    if (found->id == nullptr || id != found->id) {
        ALOGE("load: id=%s != hmi->id=%s in %s", id.c_str(), found->id ? found->id : "(null)",
              path.c_str());
        dlclose(library);
        return -EINVAL;
    }
    found->dso = library;
    *module = found;
    return 0;
}

int hw_get_module(const char* id, const hw_module_t** module) {
    for (const std::string& variant : variants()) {
        for (const std::string& folder : hardwareFolders()) {
            const std::string path = folder + "/" + id + "." + variant + ".so";
            // The first file decides, also when it is none of ours.
            if (access(path.c_str(), R_OK) == 0) return load(path, id, module);
        }
    }
    ALOGE("no module %s.%s.so in %s", id, variants().front().c_str(),
          describeHardwareFolders().c_str());
    return -ENOENT;
}
