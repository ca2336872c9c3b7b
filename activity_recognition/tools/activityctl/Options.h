// SPDX-License-Identifier: Apache-2.0
// The command line, understood but not yet carried out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Service.h"
#include "Text.h"

namespace activityctl {

struct Options {
    std::string instance = "default";
    Version version = Version::k1_1;
    bool json = false;
    bool raw = false;    // times as they are, in nanoseconds
    int64_t waitNs = 0;  // for a service to come; INT64_MAX: for ever

    std::vector<PairText> pairs;
    int64_t latencyNs = 1'000'000'000;  // of pairs that bring none of their own
    Extras extras;

    // Of a scenario; of a timeline, with what is made of it; what is recorded to.
    std::string file, picture;
    bool even = false;

    // Watching, and holding an enable.
    std::optional<uint64_t> count;  // events, or refreshes of top
    std::optional<int64_t> forNs;
    int64_t everyNs = 100'000'000;  // between two dumps of a record
    bool control = false;           // commands come on standard input
    bool leave = false;             // enable and go, without registering
    bool dryRun = false;            // tell what would be swept
    bool reconnect = false;         // wait for a service that has died to come back
};

}  // namespace activityctl
