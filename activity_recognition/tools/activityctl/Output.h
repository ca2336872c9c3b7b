// SPDX-License-Identifier: Apache-2.0
// Standard output: lines for people, or with --json one object per line. Every object has "t"
// (CLOCK_MONOTONIC, nanoseconds), "pid" and "what".
#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <string>

namespace activityctl {

class Output {
  public:
    Output(bool json, bool raw);

    bool json() const { return mJson; }
    bool raw() const { return mRaw; }

    // Prints whichever of the two is asked for. Flushes: the reader may be a pipe that waits.
    void print(const std::string& what, nlohmann::json object, const std::string& text);
    // As above, for something that happened at a time of its own.
    void printAt(int64_t ns, const std::string& what, nlohmann::json object,
                 const std::string& text);

    // Writes as it is.
    void write(const std::string& text);

    // Whether what is printed arrives.
    bool isOpen() const { return mError == 0; }
    // Why not; 0 also when the reader has gone, which is a way to end a watch.
    int error() const { return mError == EPIPE ? 0 : mError; }

    // Since this object was made, for lines that people read: "+1.234s".
    std::string sinceStart(int64_t ns) const;
    double secondsSinceStart() const;
    // A time of the module's: seconds, or with --raw nanoseconds.
    std::string timestamp(int64_t ns) const;
    // On a terminal, unless NO_COLOR is set.
    std::string dim(const std::string& text) const { return inStyle("2", text); }
    std::string bold(const std::string& text) const { return inStyle("1", text); }

    // One line on standard error. That it may not arrive changes nothing.
    static void complain(const std::string& line);

  private:
    std::string inStyle(const char* style, const std::string& text) const;

    const bool mJson;
    const bool mRaw;
    const bool mColour;
    const int64_t mStartNs;
    int mError = 0;  // errno of the first line that did not arrive
};

}  // namespace activityctl
