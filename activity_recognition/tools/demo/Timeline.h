// SPDX-License-Identifier: Apache-2.0
// The readable account: what happened, where and when, in order of time.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <stage/Stage.h>
#include <utils/Timers.h>

#include "ScenarioFile.h"

namespace demo {

// "walking:1" of anything that has an activity or environment and an event type.
std::string nameOf(const ScenarioFile& scenario, const nlohmann::json& object);
// "walking:1 #201, home:1 #205 kitchen" of records.
std::string listOf(const ScenarioFile& scenario, const nlohmann::json& records);
// "enable_activity_event(walking:1, 2s) = 0" of a line of the module's trace.
std::string toldToModule(const ScenarioFile& scenario, const nlohmann::json& line);
// What a line of the service's log tells of deaths; of others nothing.
std::string toldByLog(const support::LineSource::Line& line);

class Timeline {
  public:
    explicit Timeline(const ScenarioFile& scenario)
        : mScenario(scenario), mStartNs(systemTime(SYSTEM_TIME_MONOTONIC)) {}

    int64_t startNs() const { return mStartNs; }

    void addModule(const nlohmann::json& traceLine);
    void addClient(const std::string& who, const nlohmann::json& outputLine);
    void addLog(const support::LineSource::Line& line);
    void add(const std::string& who, const std::string& text);

    // Prints and forgets what has been added.
    void print(const std::string& heading);

  private:
    struct Entry {
        int64_t ns;
        std::string who;
        std::string text;
    };

    const ScenarioFile& mScenario;
    const int64_t mStartNs;
    std::vector<Entry> mEntries;
};

}  // namespace demo
