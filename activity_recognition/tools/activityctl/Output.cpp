// SPDX-License-Identifier: Apache-2.0
#include "Output.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <utils/Timers.h>

#include "Text.h"

namespace activityctl {

namespace {

bool takesColour() {
    const char* no = getenv("NO_COLOR");
    const char* terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) && (no == nullptr || *no == '\0') && terminal != nullptr &&
           strcmp(terminal, "dumb") != 0;
}

}  // namespace

Output::Output(bool json, bool raw)
    : mJson(json),
      mRaw(raw),
      mColour(!json && takesColour()),
      mStartNs(systemTime(SYSTEM_TIME_MONOTONIC)) {}

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
    if (!line.empty()) write(line + '\n');
}

void Output::write(const std::string& text) {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        if (mError == 0) mError = errno;
    }
}

std::string Output::sinceStart(int64_t ns) const {
    return fmt::format("+{:.3f}s", static_cast<double>(ns - mStartNs) / 1e9);
}

double Output::secondsSinceStart() const {
    return static_cast<double>(systemTime(SYSTEM_TIME_MONOTONIC) - mStartNs) / 1e9;
}

std::string Output::timestamp(int64_t ns) const {
    return mRaw ? fmt::format("{}", ns) : fmt::format("{:.3f}s", static_cast<double>(ns) / 1e9);
}

std::string Output::inStyle(const char* style, const std::string& text) const {
    return mColour ? fmt::format("\x1b[{}m{}\x1b[0m", style, text) : text;
}

void Output::complain(const std::string& line) {
    fputs(fmt::format("activityctl: {}\n", printable(line)).c_str(), stderr);
}

}  // namespace activityctl
