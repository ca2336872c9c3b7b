// SPDX-License-Identifier: Apache-2.0
#include "Comparison.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <sstream>

namespace demo {
namespace {

// Slots whose calls the clients' requests imply; the others are the service's start and look-ups.
const std::set<std::string> kImplied{
        "enable_activity_event",
        "enable_activity_event_extend",
        "disable_activity_event",
        "get_current_activity",
        "flush",
        "init_environment",
        "exit_environment",
        "enable_environment",
        "disable_environment",
};

// Not of a client's call or its death, or written by whichever thread is the last to let go.
bool isLeftOut(const std::string& line) {
    for (const char* text : {"ActChangedCb", "able to onActivityChangedV1_1", "finish",
                             "Construct ActivityInterface"}) {
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

// Of what was found the members that are expected: the rest is times and the names of activities.
nlohmann::json only(const nlohmann::json& expected, const nlohmann::json& found) {
    if (found.is_array() && expected.is_array()) {
        nlohmann::json rows = nlohmann::json::array();
        for (size_t i = 0; i < found.size(); ++i) {
            rows.push_back(expected.empty() ? found[i] : only(expected[0], found[i]));
        }
        return rows;
    }
    if (!found.is_object() || !expected.is_object()) return found;
    nlohmann::json members = nlohmann::json::object();
    for (const auto& [name, value] : expected.items()) {
        members[name] = found.contains(name) ? only(value, found[name]) : nullptr;
    }
    return members;
}

// The names of ids are activityctl's addition.
nlohmann::json withoutNames(nlohmann::json events) {
    for (auto& event : events) {
        event.erase("activity_name");
        event.erase("environment_name");
    }
    return events;
}

}  // namespace

void Comparison::that(bool holds, const std::string& otherwise) {
    ++mChecks;
    if (!holds) mDifferences.push_back(otherwise);
}

void Comparison::same(const std::string& what, const std::vector<nlohmann::json>& found,
                      const std::vector<nlohmann::json>& expected) {
    that(found.size() == expected.size(),
         fmt::format("{}: {}, expected {}", what, found.size(), expected.size()));
    for (size_t i = 0; i < std::min(found.size(), expected.size()); ++i) {
        that(found[i] == expected[i], fmt::format("{} {} is {}, expected {}", what, i + 1,
                                                  found[i].dump(), expected[i].dump()));
    }
}

void Comparison::client(const std::string& name, support::Client& client, const Model& model) {
    std::vector<nlohmann::json> calls;
    for (const auto& line : client.output()) {
        const std::string what = line.at("what");
        if (line.count("events") == 0 || what == "end") continue;
        that(line.at("pid") == client.pid(), name + ": output of another process");
        calls.push_back({{"what", what}, {"events", withoutNames(line.at("events"))}});
    }
    same(name + ": call", calls, model.deliveries(name));
}

void Comparison::native(const std::vector<nlohmann::json>& trace, const Model& model) {
    std::vector<nlohmann::json> calls;
    std::map<std::string, std::vector<nlohmann::json>> reports;
    for (nlohmann::json line : trace) {
        const std::string slot = line.at("native");
        for (const auto& event : line.value("events", nlohmann::json::array())) {
            reports[slot].push_back(event);
        }
        if (kImplied.count(slot) == 0) continue;
        line.erase("t");
        line.erase("clock");
        if (slot == "get_current_activity") {
            line.erase("result");
            line.erase("timestamps");
        }
        calls.push_back(std::move(line));
    }
    same("module: call", calls, model.nativeCalls());

    // When the scenario began, as the first event shows it; all others must agree, to the
    // nanosecond.
    std::optional<int64_t> beginNs;
    for (const auto& [slot, expected] : model.reports()) {
        std::vector<nlohmann::json> wanted;
        for (const auto& [record, dueNs] : expected) {
            if (!beginNs && !reports[slot].empty()) {
                beginNs = int64_t(reports[slot][0].at("timestamp")) - dueNs;
            }
            nlohmann::json event{{"event_type", record->eventType},
                                 {"activity", record->id},
                                 {"timestamp", beginNs.value_or(0) + dueNs},
                                 {"extra", record->extra}};
            if (record->kind != Kind::kActivity) {
                event["value"] = record->value;
                event["context_data"] = record->data;
                event["name"] = record->name;
            }
            wanted.push_back(std::move(event));
        }
        same("module: " + slot, reports[slot], wanted);
    }
}

void Comparison::dump(const std::string& moment, const nlohmann::json& dump, const Model& model) {
    const nlohmann::json& activity = dump.at("activity");
    const nlohmann::json expected = model.dump();
    nlohmann::json found{{"activity", {}}, {"environment", {}}};
    for (const char* side : {"activity", "environment"}) {
        for (const auto& [table, rows] : expected.at(side).items()) {
            found[side][table] = only(rows, dump.at(side).at(table));
        }
    }
    // Clients stand in the order of their callbacks' addresses, which the model does not know.
    for (const auto& [side, tables] : expected.items()) {
        for (const auto& [table, rows] : tables.items()) {
            auto wanted = rows;
            auto& got = found[side][table];
            if (table == "clients") {
                std::sort(got.begin(), got.end());
                std::sort(wanted.begin(), wanted.end());
            }
            that(got == wanted, fmt::format("{}: {} {} is {}, expected {}", moment, side, table,
                                            got.dump(), wanted.dump()));
        }
    }
    that(dump.at("held").empty() && dump.at("in_flight").empty(),
         moment + ": something is held or in flight");
    that(!activity.at("recipients").at("own").is_null(), moment + ": no recipients");
}

void Comparison::trace(const nlohmann::json& trace, const std::string& name, pid_t pid,
                       const Model& model, const std::function<double(int64_t)>& microseconds) {
    std::map<int, double> begins;         // of flows, by their id
    std::map<double, double> batchTimes;  // of flows that end here, by their end
    std::vector<nlohmann::json> found, expected;
    const auto& events = trace.at("traceEvents");
    for (const auto& event : events) {
        if (event.at("ph") == "s") begins[event.at("id")] = event.at("ts");
        if (event.at("ph") == "f" && event.at("pid") == pid) {
            batchTimes[event.at("ts")] = begins[event.at("id")];
        }
    }
    for (const auto& event : events) {
        if (event.at("ph") != "X" || event.at("pid") != pid) continue;
        found.push_back({{"what", event.at("name")},
                         {"events", withoutNames(event.at("args").at("records"))}});
        if (batchTimes.count(event.at("ts"))) found.back()["batch"] = batchTimes[event.at("ts")];
    }
    for (size_t i = 0; i < model.deliveries(name).size(); ++i) {
        expected.push_back(model.deliveries(name)[i]);
        if (expected.back().at("events").empty()) continue;
        expected.back()["batch"] = microseconds(model.batchTimes(name)[i]);
    }
    same(name + ": slice", found, expected);
}

void Comparison::log(const std::vector<support::LineSource::Line>& lines, const Model& model) {
    std::vector<nlohmann::json> found, expected;
    for (const auto& line : lines) {
        // "AR_impl I 11-21 20:57:22 pid thread text"
        std::istringstream words(line.text);
        std::string tag, level, skipped, text;
        words >> tag >> level >> skipped >> skipped >> skipped >> skipped >> std::ws;
        std::getline(words, text);
        if ((tag != "AR_impl" && tag != "AR_impl_Env") || isLeftOut(text)) continue;
        found.push_back(fmt::format("{} {}: {}", level, tag, text));
    }
    for (const std::string& line : model.logLines()) {
        if (!isLeftOut(line)) expected.push_back(line);
    }
    same("log line", found, expected);
}

}  // namespace demo
