// Compares what happened with what the model expects. Every difference is one line of text.
#pragma once

#include <cstdint>
#include <map>
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

    // All events that a client got, through every callback method.
    void client(const std::string& name, support::Client& client, const Model& model);
    // The module's trace, in order, as far as clients cause it.
    void native(const std::vector<nlohmann::json>& trace, const Model& model);
    void that(bool holds, const std::string& otherwise);

  private:
    void events(const std::string& who, const std::string& call,
                std::vector<nlohmann::json> received, std::vector<ExpectedEvent> expected);

    size_t mChecks = 0;
    std::vector<std::string> mDifferences;
    // Timestamp of offset 0 as a stage's first event showed it; all its others must agree, to the
    // nanosecond and across clients.
    std::map<std::string, int64_t> mStageBase;
};

}  // namespace demo
