// SPDX-License-Identifier: Apache-2.0
// Draws a trace; takes no service.
#include "Commands.h"
#include "Timeline.h"
#include "WholeFile.h"

namespace activityctl {

ExitStatus timeline(const Options& options) {
    const std::string picture = drawTimeline(readTimeline(options.file, options.even));
    WholeFile(options.picture).write([&](std::ostream& file) { file << picture; });
    return kOk;
}

}  // namespace activityctl
