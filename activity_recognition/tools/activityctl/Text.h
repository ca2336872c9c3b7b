// SPDX-License-Identifier: Apache-2.0
// What a person writes on the command line: latencies, pairs, parameters. Texts that cannot be
// meant are usage errors; numbers in range of their type are left for the service to judge.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace activityctl {

// "2s", "1.5s", "500ms", "20us", "7ns", "1min", "0"; a sign is allowed. Nanoseconds.
// noun: what it should have been, for the error.
int64_t parseTime(const std::string& text, const std::string& noun);
inline int64_t parseLatency(const std::string& text) {
    return parseTime(text, "latency");
}

// The shortest of the above that says the same.
std::string formatLatency(int64_t ns);

// How long something takes or is past, to two or three digits: "3.2 s", "1 min 5 s".
std::string formatAge(int64_t ns);

// Four numbers, comma-separated.
std::array<double, 4> parseParams(const std::string& text);

// WHAT[:EVENT][@LATENCY], not yet looked up in the service's list.
struct PairText {
    std::string what;                   // a name or a number
    std::optional<uint32_t> eventType;  // absent: both
    std::optional<int64_t> latencyNs;   // absent: the command's --latency
};
PairText parsePair(const std::string& text);

// One (activity or environment, event type) that the service can be asked for.
struct Pair {
    uint32_t id;
    uint32_t eventType;
    int64_t latencyNs;
    std::string text;  // as it is shown: "walking:1"
};

// Finds a name's position in the service's list, which is its id; a number is itself.
uint32_t resolveId(const std::string& what, const std::vector<std::string>& names,
                   const std::string& noun);

// The one of them that was probably meant, or an empty text.
std::string nearest(const std::string& word, const std::vector<std::string>& known);

// Names come from the native module, in whatever bytes it likes: control characters are shown, as
// \x1b, not sent to the terminal.
std::string printable(const std::string& text);

// Rows of cells in columns, the first one to the left and the others to the right.
std::vector<std::string> inColumns(const std::vector<std::vector<std::string>>& rows);

// The first so many characters of a text in UTF-8.
std::string firstOf(const std::string& text, size_t characters);

// The decimal digits of a uint32, or nothing.
std::optional<uint32_t> parseNumber(const std::string& text);

}  // namespace activityctl
