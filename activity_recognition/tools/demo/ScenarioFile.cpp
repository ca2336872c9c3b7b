// SPDX-License-Identifier: Apache-2.0
#include "ScenarioFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace demo {

uint32_t idOf(const std::string& name, const std::vector<std::string>& names) {
    const auto at = std::find(names.begin(), names.end(), name);
    if (at == names.end()) throw std::runtime_error(fmt::format("the scenario has no '{}'", name));
    return static_cast<uint32_t>(at - names.begin());
}

ScenarioFile readScenario(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read " + path);
    ScenarioFile scenario;
    std::vector<ScenarioRecord>* stage = nullptr;
    bool isVirtual = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string first;
        if (!(words >> first)) continue;
        if (first == "activities" || first == "environments") {
            auto& names = first == "activities" ? scenario.activities : scenario.environments;
            for (std::string name; words >> name;) names.push_back(name);
            continue;
        }
        if (first == "speed" && words >> first && first == "step") {
            isVirtual = true;
            continue;
        }
        if (first == "wait") {
            words >> first;
            stage = &scenario.stages[first];
            continue;
        }
        std::string kind, what;
        ScenarioRecord record{};
        record.offsetNs = std::llround(std::stod(first) * 1e9);
        if (stage == nullptr || !(words >> kind >> what >> record.eventType)) {
            throw std::runtime_error(fmt::format("{}: '{}' is not understood", path, line));
        }
        record.kind = kind == "activity"   ? Kind::kActivity
                      : kind == "extended" ? Kind::kExtended
                                           : Kind::kEnvironment;
        record.id = idOf(what, record.kind == Kind::kEnvironment ? scenario.environments
                                                                 : scenario.activities);
        record.name = what;
        for (std::string option; words >> option;) {
            const size_t equals = option.find('=');
            const std::string key = option.substr(0, equals);
            const std::string value = option.substr(equals + 1);
            if (key == "extra") {
                record.extra = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
            } else if (key == "value") {
                record.value = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
            } else if (key == "name") {
                record.name = value;
            } else if (key == "data") {
                std::istringstream numbers(value);
                std::string number;
                for (auto& word : record.data) {
                    if (std::getline(numbers, number, ',')) word = std::stoull(number, nullptr, 0);
                }
            } else {
                throw std::runtime_error(fmt::format("{}: '{}' is not understood", path, option));
            }
        }
        stage->push_back(record);
    }
    if (!isVirtual) throw std::runtime_error(path + ": the demo takes virtual time: 'speed step'");
    return scenario;
}

}  // namespace demo
