// SPDX-License-Identifier: Apache-2.0
// Standard output: lines for people, or with --json one object per line. Every object has "t"
// (CLOCK_MONOTONIC, nanoseconds), "pid" and "what".
#pragma once

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string>

namespace activityctl {

class Output {
  public:
    explicit Output(bool json);

    bool json() const { return mJson; }

    // Prints whichever of the two is asked for. Flushes: the reader may be a pipe that waits.
    void print(const std::string& what, nlohmann::json object, const std::string& text);
    // As above, for something that happened at a time of its own.
    void printAt(int64_t ns, const std::string& what, nlohmann::json object,
                 const std::string& text);

    // Whether somebody still reads; a closed pipe is a way to end a watch.
    bool isOpen() const { return mOpen; }

    // Since this object was made, for lines that people read: "+1.234s".
    std::string sinceStart(int64_t ns) const;

    // One line on standard error.
    static void complain(const std::string& line);

  private:
    const bool mJson;
    const int64_t mStartNs;
    bool mOpen = true;
};

}  // namespace activityctl
