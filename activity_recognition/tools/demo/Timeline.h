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

class Timeline {
  public:
    explicit Timeline(const ScenarioFile& scenario)
        : mScenario(scenario), mStartNs(systemTime(SYSTEM_TIME_MONOTONIC)) {}

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

    std::string nameOf(const nlohmann::json& object) const;
    std::string listOf(const nlohmann::json& events) const;

    const ScenarioFile& mScenario;
    const int64_t mStartNs;
    std::vector<Entry> mEntries;
};

}  // namespace demo
