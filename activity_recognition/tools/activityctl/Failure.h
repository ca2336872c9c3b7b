// SPDX-License-Identifier: Apache-2.0
// How a command ends when it does not succeed: thrown anywhere below main(), which prints the one
// line and leaves with the status.
#pragma once

#include <stdexcept>
#include <string>

namespace activityctl {

// The process's exit status; docs/activityctl.md lists them.
enum ExitStatus : int {
    kOk = 0,
    kRefused = 1,      // the service answered that it would not do it
    kUsage = 2,        // the command line says something impossible
    kNoService = 3,    // nobody serves the instance
    kUnavailable = 4,  // the service runs, but it or its native module lacks what is asked for
    kServiceLost = 5,  // the service died, or a call to it failed
    kOutput = 6,       // standard output could not be written
};

class Failure : public std::runtime_error {
  public:
    Failure(ExitStatus status, const std::string& line)
        : std::runtime_error(line), status(status) {}

    const ExitStatus status;
};

}  // namespace activityctl
