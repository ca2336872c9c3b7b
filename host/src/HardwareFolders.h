// SPDX-License-Identifier: Apache-2.0
// Where things are that a device has in /vendor/lib64/hw: implementation libraries, native modules.
#pragma once

#include <string>
#include <vector>

namespace android { namespace hardware { namespace host {

// $HIDL_HOST_HW_DIRS, separated by colons; else hw/ in the executable's folder and beside it, then
// ../lib/activity_recognition/hw, where an installation has it.
std::vector<std::string> hardwareFolders();

// The same for a log line.
std::string describeHardwareFolders();

}}}  // namespace android::hardware::host
