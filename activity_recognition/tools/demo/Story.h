// SPDX-License-Identifier: Apache-2.0
// The demo's cast and its steps. Every step does the same thing twice: with real processes, and in
// the model.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <stage/Stage.h>

#include "Comparison.h"
#include "Model.h"
#include "ScenarioFile.h"
#include "Timeline.h"
#include "TraceFile.h"

namespace demo {

class Story {
  public:
    explicit Story(const std::string& scenarioPath);

    // Plays it all, and with a path writes a trace of it there. Whether reality and model agree;
    // the differences are printed.
    bool run(const std::string& tracePath);

  private:
    struct Wish {
        std::string what;
        uint32_t eventType;
        std::string latency;  // as written on the command line
        int64_t latencyNs;    // what that is
    };
    struct Actor {
        std::string name;
        Model::Side side;
        bool version11;
        std::unique_ptr<support::Client> client;
        std::vector<Wish> wishes;
        size_t shown = 0;  // lines in the timeline
    };

    void enter(const std::string& name, Model::Side side, bool version11,
               const std::vector<Wish>& wishes, const std::optional<ar_model::Params>& params = {});
    void leave(const std::string& name);
    void killHard(const std::string& name);
    void enable(const std::string& name, const Wish& wish);
    void disable(const std::string& name, const Wish& wish);
    // A command that is a process of its own and ends at once.
    void once(const std::vector<std::string>& arguments);
    // What is held at its end comes by a flush, or when so much virtual time has passed.
    void play(const std::string& stage, int64_t passingNs = 0);
    void show(const std::string& heading);

    void waitForReports(const std::string& slot, size_t count);
    void waitForDeliveries(const Actor& actor);
    uint32_t id(const Actor& actor, const Wish& wish) const;
    std::string label(const Actor& actor) const;
    Actor& actor(const std::string& name);

    // Timestamps of the snapshot that the module answered with when a client joined.
    std::vector<int64_t> nextSnapshot();

    const ScenarioFile mScenario;
    support::Stage mStage;
    Model mModel;
    Comparison mComparison;
    Timeline mTimeline;
    TraceFile mTrace{mScenario, mTimeline.startNs()};
    std::vector<std::unique_ptr<Actor>> mActors;  // in order of entering, also those that left
    size_t mTraceShown = 0;
    size_t mLogShown = 0;
    size_t mTraceDelivered = 0;
    size_t mTraceJoined = 0;
};

}  // namespace demo
