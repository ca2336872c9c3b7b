// SPDX-License-Identifier: Apache-2.0
#include "Output.h"

#include <unistd.h>

#include <cstdio>

#include <utils/Timers.h>

namespace activityctl {

Output::Output(bool json) : mJson(json), mStartNs(systemTime(SYSTEM_TIME_MONOTONIC)) {}

void Output::print(const std::string& what, nlohmann::json object, const std::string& text) {
    printAt(systemTime(SYSTEM_TIME_MONOTONIC), what, std::move(object), text);
}

void Output::printAt(int64_t ns, const std::string& what, nlohmann::json object,
                     const std::string& text) {
    std::string line = text;
    if (mJson) {
        object["t"] = ns;
        object["pid"] = getpid();
        object["what"] = what;
        // A name comes from the native module, in whatever bytes it likes.
        line = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
    if (line.empty()) return;
    line += '\n';
    if (fwrite(line.data(), 1, line.size(), stdout) != line.size() || fflush(stdout) != 0) {
        mOpen = false;
    }
}

std::string Output::sinceStart(int64_t ns) const {
    return fmt::format("+{:.3f}s", static_cast<double>(ns - mStartNs) / 1e9);
}

void Output::complain(const std::string& line) {
    fmt::print(stderr, "activityctl: {}\n", line);
}

}  // namespace activityctl
