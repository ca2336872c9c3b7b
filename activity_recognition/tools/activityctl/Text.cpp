#include "Text.h"

#include <fmt/format.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "Failure.h"

namespace activityctl {
namespace {

struct Unit {
    const char* name;
    int64_t ns;
};

// Largest first, as formatLatency() tries them.
constexpr Unit kUnits[] = {
        {"min", 60'000'000'000}, {"s", 1'000'000'000}, {"ms", 1'000'000}, {"us", 1'000}, {"ns", 1},
};

[[noreturn]] void badLatency(const std::string& text, const char* why) {
    throw Failure(kUsage, fmt::format("'{}' is no latency: {} (examples: 2s, 500ms, 1.5s, 20ns)",
                                      text, why));
}

}  // namespace

int64_t parseLatency(const std::string& text) {
    size_t at = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (negative) at = 1;

    const size_t digitsAt = at;
    __int128 whole = 0;
    while (at < text.size() && isdigit(static_cast<unsigned char>(text[at]))) {
        whole = whole * 10 + (text[at++] - '0');
        if (whole > std::numeric_limits<int64_t>::max()) badLatency(text, "it is too long");
    }
    if (at == digitsAt) badLatency(text, "it has no number");

    std::string fraction;
    if (at < text.size() && text[at] == '.') {
        for (++at; at < text.size() && isdigit(static_cast<unsigned char>(text[at]));) {
            fraction += text[at++];
        }
        if (fraction.empty()) badLatency(text, "digits are missing after the point");
    }

    const std::string unitName = text.substr(at);
    if (unitName.empty() && whole == 0 && fraction.empty()) return 0;
    for (const Unit& unit : kUnits) {
        if (unitName != unit.name) continue;
        __int128 ns = whole * unit.ns;
        __int128 place = unit.ns;
        for (char digit : fraction) {
            if (place % 10 != 0 && digit != '0') {
                badLatency(text, "it is finer than a nanosecond");
            }
            place /= 10;
            ns += place * (digit - '0');
        }
        if (ns > std::numeric_limits<int64_t>::max()) badLatency(text, "it is too long");
        return static_cast<int64_t>(negative ? -ns : ns);
    }
    badLatency(text,
               unitName.empty() ? "it has no unit" : "the unit is none of min, s, ms, us, ns");
}

std::string formatLatency(int64_t ns) {
    if (ns == 0) return "0s";
    for (const Unit& unit : kUnits) {
        if (ns % unit.ns == 0) return fmt::format("{}{}", ns / unit.ns, unit.name);
    }
    return fmt::format("{}ns", ns);
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
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return {};
    errno = 0;
    const unsigned long long value = strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || value > std::numeric_limits<uint32_t>::max()) return {};
    return static_cast<uint32_t>(value);
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
    throw Failure(kUsage, fmt::format("unknown {} '{}'; the service supports: {}", noun, what,
                                      names.empty() ? std::string("none")
                                                    : fmt::format("{}", fmt::join(names, ", "))));
}

}  // namespace activityctl
