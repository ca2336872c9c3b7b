// SPDX-License-Identifier: Apache-2.0
// Draws a trace; takes no service.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "Commands.h"
#include "Timeline.h"

namespace activityctl {

ExitStatus timeline(const Options& options) {
    const std::string picture = drawTimeline(readTimeline(options.file, options.even));
    std::ofstream file(options.picture);
    if (!(file << picture << std::flush)) {
        throw Failure(kOutput,
                      fmt::format("{} cannot be written: {}", options.picture, strerror(errno)));
    }
    return kOk;
}

}  // namespace activityctl
