// SPDX-License-Identifier: Apache-2.0
#include "Text.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <numeric>
#include <utility>

#include "Failure.h"

namespace activityctl {
namespace {

constexpr char kDigits[] = "0123456789";

// A unit is factor * 10^zeros nanoseconds.
struct Unit {
    const char* name;
    int64_t factor;
    size_t zeros;

    int64_t ns() const {
        int64_t ns = factor;
        for (size_t i = 0; i < zeros; ++i) ns *= 10;
        return ns;
    }
};

// Largest first, as formatLatency() tries them.
constexpr Unit kUnits[] = {{"min", 6, 10}, {"s", 1, 9}, {"ms", 1, 6}, {"us", 1, 3}, {"ns", 1, 0}};

// In UTF-8 all bytes of a character but the first one begin with the bits 10.
bool beginsCharacter(char byte) {
    return (byte & 0xc0) != 0x80;
}

size_t widthOf(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), beginsCharacter));
}

}  // namespace

// Not CLI::AsNumberWithUnit, which for decimals goes through a double printed with six digits.
int64_t parseTime(const std::string& text, const std::string& noun) {
    const auto bad = [&](const char* why) {
        throw Failure(kUsage, fmt::format("'{}' is no {}: {} (examples: 2s, 500ms, 1.5s, 20ns)",
                                          text, noun, why));
    };
    const size_t sign = text.compare(0, 1, "-") == 0 ? 1 : 0;
    const size_t point = std::min(text.find_first_not_of(kDigits, sign), text.size());
    const std::string whole = text.substr(sign, point - sign);
    if (whole.empty()) bad("it has no number");
    if (point == text.size() && whole.find_first_not_of('0') == std::string::npos) return 0;
    std::string fraction, unitName = text.substr(point);
    if (unitName.compare(0, 1, ".") == 0) {
        const size_t end = std::min(unitName.find_first_not_of(kDigits, 1), unitName.size());
        fraction = unitName.substr(1, end - 1);
        unitName.erase(0, end);
        if (fraction.empty()) bad("digits are missing after the point");
    }
    fraction.erase(fraction.find_last_not_of('0') + 1);

    const auto* unit = std::find_if(std::begin(kUnits), std::end(kUnits),
                                    [&](const Unit& known) { return unitName == known.name; });
    if (unit == std::end(kUnits)) {
        bad(unitName.empty() ? "it has no unit" : "the unit is none of min, s, ms, us, ns");
    }
    if (fraction.size() > unit->zeros) bad("it is finer than a nanosecond");
    // The point moved to the end, what is left is a whole number.
    const std::string digits = whole + fraction + std::string(unit->zeros - fraction.size(), '0');
    int64_t ns = 0;
    const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), ns);
    if (read.ec != std::errc() || __builtin_mul_overflow(ns, unit->factor, &ns)) {
        bad("it is too long");
    }
    return sign != 0 ? -ns : ns;
}

std::string formatLatency(int64_t ns) {
    if (ns == 0) return "0s";
    for (const Unit& unit : kUnits) {
        if (ns % unit.ns() == 0) return fmt::format("{}{}", ns / unit.ns(), unit.name);
    }
    return fmt::format("{}ns", ns);
}

std::string formatAge(int64_t ns) {
    const double seconds = static_cast<double>(ns) / 1e9;
    if (seconds < 1e-3) return fmt::format("{} us", ns / 1000);
    if (seconds < 0.1) return fmt::format("{:.1f} ms", seconds * 1e3);
    if (seconds < 60) return fmt::format("{:.1f} s", seconds);
    const int64_t whole = ns / 1'000'000'000;
    if (whole < 3600) return fmt::format("{} min {} s", whole / 60, whole % 60);
    if (whole < 86400) return fmt::format("{} h {} min", whole / 3600, whole / 60 % 60);
    return fmt::format("{} d {} h", whole / 86400, whole / 3600 % 24);
}

std::array<double, 4> parseParams(const std::string& text) {
    std::array<double, 4> params{};
    const char* at = text.c_str();
    for (size_t i = 0; i < params.size(); ++i) {
        char* end = nullptr;
        params[i] = strtod(at, &end);
        const char expected = i + 1 < params.size() ? ',' : '\0';
        if (end == at || *end != expected) {
            throw Failure(kUsage, fmt::format("'{}' is not four numbers such as 1,0,0.5,0", text));
        }
        at = end + 1;
    }
    return params;
}

std::optional<uint32_t> parseNumber(const std::string& text) {
    if (text.empty() || text.find_first_not_of(kDigits) != std::string::npos) return {};
    uint32_t value = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
    if (read.ec != std::errc()) return {};
    return value;
}

PairText parsePair(const std::string& text) {
    PairText pair;
    std::string rest = text;
    if (const size_t at = rest.rfind('@'); at != std::string::npos) {
        pair.latencyNs = parseLatency(rest.substr(at + 1));
        rest.resize(at);
    }
    if (const size_t colon = rest.rfind(':'); colon != std::string::npos) {
        pair.eventType = parseNumber(rest.substr(colon + 1));
        if (!pair.eventType) {
            throw Failure(kUsage, fmt::format("'{}': '{}' is no event type; 1 and 2 are", text,
                                              rest.substr(colon + 1)));
        }
        rest.resize(colon);
    }
    if (rest.empty()) {
        throw Failure(kUsage, fmt::format("'{}' names nothing; write for example walking:1", text));
    }
    pair.what = rest;
    return pair;
}

uint32_t resolveId(const std::string& what, const std::vector<std::string>& names,
                   const std::string& noun) {
    if (const auto number = parseNumber(what)) return *number;
    for (size_t i = 0; i < names.size(); ++i) {
        if (strcasecmp(names[i].c_str(), what.c_str()) == 0) return static_cast<uint32_t>(i);
    }
    const std::string meant = nearest(what, names);
    throw Failure(kUsage, fmt::format("unknown {} '{}'; {}the service supports: {}", noun, what,
                                      meant.empty() ? "" : fmt::format("did you mean {}? ", meant),
                                      names.empty() ? std::string("none")
                                                    : fmt::format("{}", fmt::join(names, ", "))));
}

std::string nearest(const std::string& word, const std::vector<std::string>& known) {
    std::string best;
    size_t least = std::min<size_t>(3, word.size());  // so many letters wrong are another word
    for (const std::string& candidate : known) {
        // Letters to insert, to leave out or to change: row by row of the usual table.
        std::vector<size_t> row(candidate.size() + 1);
        std::iota(row.begin(), row.end(), 0);
        for (size_t i = 0; i < word.size(); ++i) {
            size_t corner = std::exchange(row[0], i + 1);
            for (size_t j = 0; j < candidate.size(); ++j) {
                const bool same = tolower(word[i]) == tolower(candidate[j]);
                corner = std::exchange(row[j + 1],
                                       std::min({corner + !same, row[j] + 1, row[j + 1] + 1}));
            }
        }
        if (row.back() >= least) continue;
        least = row.back();
        best = candidate;
    }
    return best;
}

std::vector<std::string> inColumns(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string room(widths[i] - widthOf(row[i]), ' ');
            line += i == 0 ? row[i] + room : "  " + room + row[i];
        }
        lines.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
    }
    return lines;
}

std::string firstOf(const std::string& text, size_t characters) {
    size_t at = 0;
    while (at < text.size() && (!beginsCharacter(text[at]) || characters-- > 0)) ++at;
    return text.substr(0, at);
}

std::string printable(const std::string& text) {
    std::string shown;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        // In UTF-8 the second half of control characters starts with this one.
        const bool second = byte == 0xc2 && i + 1 < text.size() &&
                            static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if (byte >= 0x20 && byte != 0x7f && !second) {
            shown += text[i];
        } else {
            shown += fmt::format("\\x{:02x}", byte);
            if (second) shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[++i]));
        }
    }
    return shown;
}

}  // namespace activityctl
