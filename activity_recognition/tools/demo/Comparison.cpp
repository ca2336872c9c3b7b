#include "Comparison.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

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

}  // namespace

void Comparison::that(bool holds, const std::string& otherwise) {
    ++mChecks;
    if (!holds) mDifferences.push_back(otherwise);
}

void Comparison::client(const std::string& name, support::Client& client, const Model& model) {
    ExpectedEvents expected = model.expected(name);
    std::map<std::string, std::vector<nlohmann::json>> received;
    size_t plainCalls = 0;
    for (const auto& line : client.output()) {
        const std::string what = line.at("what");
        if (line.count("events") == 0 || what == "end") continue;
        plainCalls += what == "onActivityChanged";
        for (const auto& event : line.at("events")) received[what].push_back(event);
        expected[what];  // a method that nothing was expected through
        that(line.at("pid") == client.pid(), name + ": output of another process");
    }
    for (const auto& [call, list] : expected) events(name, call, received[call], list);
    if (expected.count("onActivityChanged")) {
        that(plainCalls == model.expectedPlainCalls(name),
             fmt::format("{}: {} calls of onActivityChanged, expected {}", name, plainCalls,
                         model.expectedPlainCalls(name)));
    }
}

void Comparison::events(const std::string& who, const std::string& call,
                        std::vector<nlohmann::json> received, std::vector<ExpectedEvent> expected) {
    that(received.size() == expected.size(),
         fmt::format("{}: {} events through {}, expected {}", who, received.size(), call,
                     expected.size()));
    if (call == "onActivityChanged") {
        // One call per process and batch: the order of events is that of the processes.
        std::stable_sort(received.begin(), received.end(), [](const auto& a, const auto& b) {
            return a.at("timestamp") < b.at("timestamp");
        });
        std::stable_sort(expected.begin(), expected.end(), [](const auto& a, const auto& b) {
            return a.record->offsetNs < b.record->offsetNs;
        });
    }
    for (size_t i = 0; i < std::min(received.size(), expected.size()); ++i) {
        const ScenarioRecord& record = *expected[i].record;
        const int64_t base = received[i].at("timestamp").get<int64_t>() - record.offsetNs;
        const int64_t stageBase = mStageBase.emplace(expected[i].stage, base).first->second;

        nlohmann::json wanted{
                {"event_type", record.eventType},
                {record.kind == Kind::kEnvironment ? "environment" : "activity", record.id},
                {"timestamp", stageBase + record.offsetNs}};
        if (call.find("V1_1") != std::string::npos) wanted["extra"] = record.extra;
        if (record.kind != Kind::kActivity) {
            wanted["value"] = record.value;
            wanted["context_data"] = record.data;
            wanted["name"] = record.name;
        }
        // The names of ids are activityctl's addition.
        received[i].erase("activity_name");
        received[i].erase("environment_name");
        that(received[i] == wanted, fmt::format("{}: event {} through {} is {}, expected {}", who,
                                                i + 1, call, received[i].dump(), wanted.dump()));
    }
}

void Comparison::native(const std::vector<nlohmann::json>& trace, const Model& model) {
    std::vector<nlohmann::json> calls;
    for (nlohmann::json line : trace) {
        if (kImplied.count(line.at("native")) == 0) continue;
        line.erase("t");
        if (line.at("native") == "get_current_activity") line.erase("result");
        calls.push_back(std::move(line));
    }
    const auto& expected = model.nativeCalls();
    that(calls.size() == expected.size(),
         fmt::format("module: {} calls, expected {}", calls.size(), expected.size()));
    for (size_t i = 0; i < std::min(calls.size(), expected.size()); ++i) {
        that(calls[i] == expected[i], fmt::format("module: call {} is {}, expected {}", i + 1,
                                                  calls[i].dump(), expected[i].dump()));
    }
}

}  // namespace demo
