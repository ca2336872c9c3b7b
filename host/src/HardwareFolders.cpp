// SPDX-License-Identifier: Apache-2.0
#include "HardwareFolders.h"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>

namespace android { namespace hardware { namespace host {

std::vector<std::string> hardwareFolders() {
    std::vector<std::string> folders;
    const char* list = getenv("HIDL_HOST_HW_DIRS");
    if (list != nullptr && *list != '\0') {
        std::istringstream stream(list);
        for (std::string folder; std::getline(stream, folder, ':');) {
            if (!folder.empty()) folders.push_back(folder);
        }
        return folders;
    }
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
    if (length <= 0 || length == sizeof(path)) return folders;
    const std::string executable(path, static_cast<size_t>(length));
    const std::string folder = executable.substr(0, executable.rfind('/'));
    return {folder + "/hw", folder + "/../hw", folder + "/../lib/activity_recognition/hw"};
}

std::string describeHardwareFolders() {
    std::string text;
    for (const std::string& folder : hardwareFolders()) text += (text.empty() ? "" : ":") + folder;
    return text.empty() ? "no folder" : text;
}

}}}  // namespace android::hardware::host
