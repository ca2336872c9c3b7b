// SPDX-License-Identifier: Apache-2.0
#include "Timeline.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace demo {
namespace {

std::string seconds(const nlohmann::json& ns) {
    return fmt::format("{}s", ns.get<int64_t>() / 1e9);
}

}  // namespace

std::string nameOf(const ScenarioFile& scenario, const nlohmann::json& object) {
    const bool environment = object.count("environment") != 0;
    const auto& names = environment ? scenario.environments : scenario.activities;
    const size_t id = object.at(environment ? "environment" : "activity");
    std::string text = id < names.size() ? names[id] : fmt::format("{}", id);
    if (object.count("event_type")) {
        text += fmt::format(":{}", object.at("event_type").get<uint32_t>());
    }
    return text;
}

std::string listOf(const ScenarioFile& scenario, const nlohmann::json& records) {
    std::string text;
    for (const auto& event : records) {
        text += (text.empty() ? "" : ", ") + nameOf(scenario, event);
        if (event.count("extra")) text += fmt::format(" #{}", event.at("extra").get<uint32_t>());
        if (event.count("name")) text += " " + event.at("name").get<std::string>();
    }
    return text.empty() ? "nothing" : text;
}

std::string toldToModule(const ScenarioFile& scenario, const nlohmann::json& line) {
    std::string arguments;
    if (line.count("activity") || line.count("environment")) arguments = nameOf(scenario, line);
    if (line.count("latency_ns")) arguments += ", " + seconds(line.at("latency_ns"));
    if (line.count("params")) {
        arguments += fmt::format(", {} '{}'", line.at("params").dump(),
                                 line.at("name").get<std::string>());
    }
    std::string text = fmt::format("{}({})", line.at("native").get<std::string>(), arguments);
    if (line.count("result")) text += fmt::format(" = {}", line.at("result").get<int>());
    return text;
}

std::string toldByLog(const support::LineSource::Line& line) {
    for (const char* told : {"serviceDied", "######"}) {
        if (const size_t at = line.text.find(told); at != std::string::npos) {
            return line.text.substr(at);
        }
    }
    return "";
}

void Timeline::add(const std::string& who, const std::string& text) {
    mEntries.push_back({systemTime(SYSTEM_TIME_MONOTONIC), who, text});
}

void Timeline::addModule(const nlohmann::json& line) {
    const std::string slot = line.at("native");
    std::string text;
    if (line.count("events")) {
        // Environment records name their environment in the same field as activities.
        nlohmann::json events = line.at("events");
        if (slot == "environment_changed") {
            for (auto& event : events) event["environment"] = event.at("activity");
        }
        text = fmt::format("reports {}: {}", slot, listOf(mScenario, events));
    } else {
        text = "is told " + toldToModule(mScenario, line);
    }
    mEntries.push_back({line.at("t"), "module", text});
}

void Timeline::addClient(const std::string& who, const nlohmann::json& line) {
    const std::string what = line.at("what");
    std::string text;
    if (what == "ready") {
        text = fmt::format("registered in version {}", line.at("interface").get<std::string>());
        for (const auto& pair : line.at("enabled")) {
            text += fmt::format("; enabled {}, {}", pair.at("pair").get<std::string>(),
                                seconds(pair.at("latency_ns")));
        }
    } else if (what == "end") {
        text = "disabled what it had enabled, and left";
    } else if (line.count("events")) {
        text = fmt::format("gets {}: {}", what, listOf(mScenario, line.at("events")));
    } else {
        text = what;
        if (line.count("pair")) text += " " + line.at("pair").get<std::string>();
        if (line.count("latency_ns")) text += ", " + seconds(line.at("latency_ns"));
    }
    mEntries.push_back({line.at("t"), who, text});
}

void Timeline::addLog(const support::LineSource::Line& line) {
    if (const std::string told = toldByLog(line); !told.empty()) {
        mEntries.push_back({line.ns, "service", "logs " + told});
    }
}

void Timeline::print(const std::string& heading) {
    std::stable_sort(mEntries.begin(), mEntries.end(),
                     [](const Entry& a, const Entry& b) { return a.ns < b.ns; });
    fmt::print("\n{}\n", heading);
    for (const Entry& entry : mEntries) {
        fmt::print("{:>8.3f}  {:<18} {}\n", static_cast<double>(entry.ns - mStartNs) / 1e9,
                   entry.who, entry.text);
    }
    fflush(stdout);
    mEntries.clear();
}

}  // namespace demo
