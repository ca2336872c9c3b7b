// SPDX-License-Identifier: Apache-2.0
// The scenario as the demo's model reads it: on purpose not the simulator's own reader, so that a
// mistake there shows. It knows the columns that scenarios/demo.scn uses and refuses the rest.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace demo {

enum class Kind { kActivity, kExtended, kEnvironment };

struct ScenarioRecord {
    Kind kind;
    uint32_t id;  // position in the file's list
    uint32_t eventType;
    int64_t offsetNs;  // within the file
    uint32_t extra = 0;
    uint32_t value = 0;
    std::array<uint64_t, 4> data{};
    std::string name;
};

struct ScenarioFile {
    std::vector<std::string> activities;
    std::vector<std::string> environments;
    std::map<std::string, std::vector<ScenarioRecord>> stages;  // by the name waited for
};

// Throws std::runtime_error.
ScenarioFile readScenario(const std::string& path);

// Position of a name; throws std::runtime_error.
uint32_t idOf(const std::string& name, const std::vector<std::string>& names);

}  // namespace demo
