// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "Commands.h"

namespace activityctl {
namespace {

constexpr size_t kLongestName = 32;

// What can be known from here of a refusal; the service says only that it refused.
std::string reasonFor(Side& side, const Pair& pair, const Extras& extras) {
    const bool activity = std::string(side.noun()) == "activity";
    if (extras.params.name.size() > kLongestName) {
        return fmt::format(": the name has {} characters, at most {} are allowed",
                           extras.params.name.size(), kLongestName);
    }
    if (activity && (pair.eventType < 1 || pair.eventType > 2)) {
        return fmt::format(": event type {} is neither 1 nor 2", pair.eventType);
    }
    const size_t known = side.names().size();
    if (pair.id >= known) {
        return fmt::format(": the native module's list of {} has {}", side.plural(), known);
    }
    return "";
}

[[noreturn]] void refused(const std::string& what, const std::string& reason) {
    throw Failure(kRefused, fmt::format("the service refused to {}{}", what, reason));
}

ExitStatus forEachEnvironment(EnvironmentSide& side, const Options& options, Output& output,
                              const char* what,
                              int32_t (EnvironmentSide::*method)(uint32_t environment,
                                                                 const Extras& extras)) {
    const auto names = side.names();
    for (const PairText& text : options.pairs) {
        const uint32_t id = resolveId(text.what, names, side.noun());
        if ((side.*method)(id, options.extras) != 0) {
            refused(fmt::format("{} environment {} ({})", what, nameOf(id, names), id),
                    reasonFor(side, {id, 1, 0, {}}, options.extras));
        }
        output.print(what, {{"environment", id}},
                     fmt::format("{} {}: done", what, nameOf(id, names)));
    }
    return kOk;
}

}  // namespace

std::vector<Pair> resolve(const Side& side, const std::vector<std::string>& names,
                          const std::vector<PairText>& texts, int64_t defaultLatencyNs) {
    std::vector<Pair> pairs;
    for (const PairText& text : texts) {
        const uint32_t id = resolveId(text.what, names, side.noun());
        const int64_t latencyNs = text.latencyNs.value_or(defaultLatencyNs);
        std::vector<uint32_t> eventTypes{1, 2};
        if (text.eventType) eventTypes = {*text.eventType};
        for (uint32_t eventType : eventTypes) {
            pairs.push_back(
                    {id, eventType, latencyNs, fmt::format("{}:{}", nameOf(id, names), eventType)});
        }
    }
    return pairs;
}

nlohmann::json toJson(const Side& side, const Pair& pair) {
    return {{side.noun(), pair.id}, {"pair", pair.text}, {"event_type", pair.eventType}};
}

void enableOrFail(Side& side, const Pair& pair, const Extras& extras) {
    if (side.enable(pair, extras) == 0) return;
    const std::string reason = reasonFor(side, pair, extras);
    refused(fmt::format("enable {} ({} {}, event type {}, latency {})", pair.text, side.noun(),
                        pair.id, pair.eventType, formatLatency(pair.latencyNs)),
            reason.empty() ? ": its native module did, and its log may say why" : reason);
}

void disableOrFail(Side& side, const Pair& pair) {
    if (side.disable(pair) == 0) return;
    std::string reason = reasonFor(side, pair, {});
    if (reason.empty() && std::string(side.noun()) == "activity") {
        reason = ": a request belongs to the process that made it, and this process has none";
    }
    refused(fmt::format("disable {} ({} {}, event type {})", pair.text, side.noun(), pair.id,
                        pair.eventType),
            reason);
}

ExitStatus disable(Side& side, const Options& options, Output& output) {
    for (const Pair& pair : resolve(side, side.names(), options.pairs, options.latencyNs)) {
        disableOrFail(side, pair);
        output.print("disabled", toJson(side, pair), fmt::format("disabled {}", pair.text));
    }
    return kOk;
}

ExitStatus flush(ActivitySide& side, Output& output) {
    if (side.flush() != 0) refused("flush", "");
    output.print("flushed", {}, "flushed");
    return kOk;
}

ExitStatus enableAndLeave(Side& side, const Options& options, Output& output) {
    for (const Pair& pair : resolve(side, side.names(), options.pairs, options.latencyNs)) {
        enableOrFail(side, pair, options.extras);
        auto json = toJson(side, pair);
        json["latency_ns"] = pair.latencyNs;
        output.print(
                "enabled", std::move(json),
                fmt::format("enabled {}, latency {}", pair.text, formatLatency(pair.latencyNs)));
    }
    return kOk;
}

ExitStatus initEnvironments(EnvironmentSide& side, const Options& options, Output& output) {
    return forEachEnvironment(side, options, output, "init", &EnvironmentSide::init);
}

ExitStatus exitEnvironments(EnvironmentSide& side, const Options& options, Output& output) {
    return forEachEnvironment(side, options, output, "exit", &EnvironmentSide::exit);
}

}  // namespace activityctl
