// SPDX-License-Identifier: Apache-2.0
// Compares what happened with what the model expects. Every difference is one line of text.
#pragma once

#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <stage/Stage.h>

#include "Model.h"

namespace demo {

class Comparison {
  public:
    const std::vector<std::string>& differences() const { return mDifferences; }
    size_t checks() const { return mChecks; }

    // All calls that a client got, in order.
    void client(const std::string& name, support::Client& client, const Model& model);
    // The module's trace, in order: what clients cause, and what it reports of the scenario.
    void native(const std::vector<nlohmann::json>& trace, const Model& model);
    // The service's log, in order, but for what deliveries write, whose threads are the module's.
    void log(const std::vector<support::LineSource::Line>& lines, const Model& model);
    // Every table of the service's dump, at a moment when nothing is under way.
    void dump(const std::string& moment, const nlohmann::json& dump, const Model& model);
    // A client's slices in the trace, in order; those with records with the batch that
    // their flow comes from.
    void trace(const nlohmann::json& trace, const std::string& name, pid_t pid, const Model& model,
               const std::function<double(int64_t)>& microseconds);
    void that(bool holds, const std::string& otherwise);

  private:
    void same(const std::string& what, const std::vector<nlohmann::json>& found,
              const std::vector<nlohmann::json>& expected);

    size_t mChecks = 0;
    std::vector<std::string> mDifferences;
};

}  // namespace demo
