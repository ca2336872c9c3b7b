// SPDX-License-Identifier: Apache-2.0
#include "Story.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace demo {
namespace {

using support::require;
using Side = Model::Side;

constexpr int64_t kSecond = 1'000'000'000;
const ar_model::Params kNoWake{{1.0, 0.0, 0.0, 0.0}, "trip"};

support::StageSetup setup(const std::string& scenarioPath) {
    support::StageSetup setup;
    setup.scenario = scenarioPath;
    return setup;
}

void checkWritten(const std::ofstream& file, const std::string& path) {
    if (!file) throw std::runtime_error(fmt::format("cannot write {}: {}", path, strerror(errno)));
}

}  // namespace

Story::Story(const std::string& scenarioPath)
    : mScenario(readScenario(scenarioPath)),
      mStage(setup(scenarioPath)),
      mModel(mScenario, [this] { return nextSnapshot(); }),
      mTimeline(mScenario) {}

bool Story::run(const std::string& tracePath) {
    // Before it plays, so that nobody waits for nothing.
    std::ofstream file;
    if (!tracePath.empty()) {
        file.open(tracePath);
        checkWritten(file, tracePath);
    }

    mStage.startService();
    mStage.serving();
    mTimeline.add("service", fmt::format("runs as process {}", mStage.service().pid()));
    mTrace.addProcess(mStage.service().pid(), "module", "in the service");

    once({"env", "init", "home", "station"});
    for (const char* environment : {"home", "station"}) {
        mModel.initEnvironment(idOf(environment, mScenario.environments));
    }
    enter("house", Side::kEnvironment, true, {{"home", 1, "0", 0}, {"station", 3, "0", 0}});
    enter("porch", Side::kEnvironment, false, {});
    enter("commuter", Side::kActivity, true, {{"walking", 1, "5s", 5 * kSecond}});
    enter("veteran", Side::kActivity, false, {{"still", 2, "3s", 3 * kSecond}});
    enter("sleeper", Side::kActivity, true, {{"driving", 1, "1s", kSecond}}, kNoWake);
    enter("runner", Side::kActivity, true, {{"running", 1, "4s", 4 * kSecond}});
    play("alone");
    show("Every client alone on what it asked for. The version 1.0 client \"veteran\" also sees "
         "what "
         "the others get.");

    enter("jogger", Side::kActivity, true, {{"walking", 1, "2.5s", kSecond * 5 / 2}});
    play("joined");
    show("A second client joins walking:1 with 2.5 s: the module is told 2 s, and asked what is "
         "current for the joiner's barrier.");

    killHard("runner");
    play("one_killed");
    show("SIGKILL for \"runner\". Its pair stays enabled in the module, so one batch holds events "
         "that nobody, one and several asked for.");

    enter("sprinter", Side::kActivity, true, {{"walking", 1, "1s", kSecond}});
    killHard("sprinter");
    play("fastest_killed", kSecond);
    show("The fastest client of walking:1 joins and is killed: the module is told nothing and goes "
         "on reporting after its one second.");

    enable("jogger", {"walking", 1, "3s", 3 * kSecond});
    show("The next enable of the pair merges again: 3 s is the smallest latency now.");

    disable("jogger", {"walking", 1, "", 0});
    once({"env", "disable", "station:3"});
    mModel.disable("house", idOf("station", mScenario.environments), 3);
    play("few_left");
    show("The fastest client withdraws: the module is told the next latency up. Another process "
         "disables an environment pair that \"house\" wanted, and the module obeys at once.");

    for (const char* name : {"commuter", "veteran", "sleeper", "jogger", "house", "porch"}) {
        leave(name);
    }
    show("Everybody leaves: the last request of a pair takes its enable with it.");

    for (const auto& actor : mActors) mComparison.client(actor->name, *actor->client, mModel);
    mComparison.native(mStage.native(), mModel);
    mComparison.log(mStage.service().err().lines(), mModel);
    mComparison.that(mModel.sawMixedBatch(),
                     "no batch held events that nobody, one and several asked for");
    if (!tracePath.empty()) {
        const nlohmann::json trace = mTrace.finish();
        for (const auto& actor : mActors) {
            mComparison.trace(trace, actor->name, actor->client->pid(), mModel,
                              [this](int64_t ns) { return mTrace.microseconds(ns); });
        }
        file << trace.dump(1) << std::endl;
        checkWritten(file, tracePath);
    }
    fmt::print("\n{} processes served, {} checks against the model.\n", mActors.size(),
               mComparison.checks());
    for (const std::string& difference : mComparison.differences()) {
        fmt::print("DIFFERENT  {}\n", difference);
    }
    return mComparison.differences().empty();
}

std::string Story::label(const Actor& actor) const {
    return fmt::format("{}[{}]", actor.name, actor.client->pid());
}

Story::Actor& Story::actor(const std::string& name) {
    for (const auto& actor : mActors) {
        if (actor->name == name) return *actor;
    }
    throw std::logic_error(name);
}

void Story::enter(const std::string& name, Side side, bool version11,
                  const std::vector<Wish>& wishes, const std::optional<ar_model::Params>& params) {
    std::vector<std::string> arguments{"--interface", version11 ? "1.1" : "1.0"};
    if (side == Side::kEnvironment) arguments.emplace_back("env");
    arguments.insert(arguments.end(), {"watch", "--control"});
    for (const Wish& wish : wishes) {
        arguments.push_back(fmt::format("{}:{}@{}", wish.what, wish.eventType, wish.latency));
    }
    if (params) {
        arguments.insert(arguments.end(),
                         {"--params", fmt::format("{}", fmt::join(params->numbers, ",")), "--name",
                          params->name});
    }
    auto actor = std::make_unique<Actor>();
    actor->name = name;
    actor->side = side;
    actor->version11 = version11;
    actor->wishes = wishes;
    actor->client = mStage.readyClient(arguments);
    mActors.push_back(std::move(actor));

    const Actor& entered = *mActors.back();
    mTrace.addProcess(entered.client->pid(), name,
                      fmt::format("{} {}", side == Side::kActivity ? "activities" : "environments",
                                  version11 ? "1.1" : "1.0"));
    mModel.addClient(name, side, version11, entered.client->pid());
    for (const Wish& wish : wishes) {
        mModel.enable(name, id(entered, wish), wish.eventType, wish.latencyNs, params);
    }
}

uint32_t Story::id(const Actor& actor, const Wish& wish) const {
    return idOf(wish.what,
                actor.side == Side::kActivity ? mScenario.activities : mScenario.environments);
}

void Story::leave(const std::string& name) {
    Actor& leaving = actor(name);
    if (const int status = leaving.client->leave(); status != 0) {
        throw std::runtime_error(leaving.client->process().describe());
    }
    mStage.waitForDeath(leaving.client->pid());
    for (const Wish& wish : leaving.wishes) {
        mModel.disable(name, id(leaving, wish), wish.eventType);
    }
    mModel.removeClient(name);
}

void Story::killHard(const std::string& name) {
    Actor& victim = actor(name);
    mTimeline.add(label(victim), "is killed with SIGKILL");
    mTrace.addDeath(victim.client->pid(), systemTime(SYSTEM_TIME_MONOTONIC));
    victim.client->process().signal(SIGKILL);
    victim.client->process().waitExit();
    mStage.waitForDeath(victim.client->pid());
    victim.wishes.clear();
    mModel.removeClient(name);
}

void Story::enable(const std::string& name, const Wish& wish) {
    Actor& asking = actor(name);
    const size_t before = asking.client->output("enabled").size();
    asking.client->command(fmt::format("enable {}:{}@{}", wish.what, wish.eventType, wish.latency));
    asking.client->waitFor("enabled", before + 1);
    mModel.enable(name, id(asking, wish), wish.eventType, wish.latencyNs);
}

void Story::disable(const std::string& name, const Wish& wish) {
    Actor& asking = actor(name);
    asking.client->command(fmt::format("disable {}:{}", wish.what, wish.eventType));
    asking.client->waitFor("disabled");
    asking.wishes.clear();
    mModel.disable(name, id(asking, wish), wish.eventType);
}

void Story::once(const std::vector<std::string>& arguments) {
    auto client = mStage.client(arguments);
    if (client->process().waitExit() != 0) {
        throw std::runtime_error(client->process().describe());
    }
}

// Waits until the module has reported what it must through the slot.
void Story::waitForReports(const std::string& slot, size_t count) {
    const auto reported = [&] {
        size_t events = 0;
        for (const auto& line : mStage.native()) {
            if (line.at("native") == slot) events += line.at("events").size();
        }
        return events >= count;
    };
    require(reported, fmt::format("{} events of {}", count, slot),
            [this] { return mStage.service().describe(); });
}

void Story::waitForDeliveries(const Actor& actor) {
    const size_t count = mModel.deliveries(actor.name).size();
    const auto got = [&] {
        const auto& output = actor.client->output();
        return size_t(std::count_if(output.begin(), output.end(), [](const auto& line) {
                   return line.count("events") != 0 && line.at("what") != "end";
               })) >= count;
    };
    require(got, fmt::format("{} calls of {}", count, label(actor)),
            [&] { return actor.client->process().describe(); });
}

void Story::play(const std::string& stage, int64_t passingNs) {
    mModel.play(stage);
    mStage.release(stage);
    const auto& reports = mModel.reports();
    if (passingNs != 0) {
        mStage.pass(passingNs);
        mModel.pass(passingNs);
    } else {
        // Once its last record is here, the whole stage has been played, and can be flushed.
        waitForReports("environment_changed", reports.at("environment_changed").size());
        once({"flush"});
        mModel.flush();
    }
    for (const auto& [slot, records] : reports) waitForReports(slot, records.size());
    const auto& trace = mStage.native();
    for (; mTraceDelivered < trace.size(); ++mTraceDelivered) {
        if (trace[mTraceDelivered].count("events")) mModel.deliver(trace[mTraceDelivered]);
    }
    for (const auto& actor : mActors) waitForDeliveries(*actor);
}

void Story::show(const std::string& heading) {
    support::drainOutput();
    const auto& trace = mStage.native();
    for (; mTraceShown < trace.size(); ++mTraceShown) {
        mTimeline.addModule(trace[mTraceShown]);
        mTrace.add(mStage.service().pid(), trace[mTraceShown]);
    }
    for (const auto& actor : mActors) {
        const auto& output = actor->client->output();
        for (; actor->shown < output.size(); ++actor->shown) {
            mTimeline.addClient(label(*actor), output[actor->shown]);
            mTrace.add(actor->client->pid(), output[actor->shown]);
        }
    }
    const auto& log = mStage.service().err().lines();
    for (; mLogShown < log.size(); ++mLogShown) {
        mTimeline.addLog(log[mLogShown]);
        mTrace.addLog(mStage.service().pid(), log[mLogShown]);
    }
    mTimeline.print(heading);
    // What the service says of itself at this moment.
    const auto dump = mStage.client({"dump"});
    if (dump->process().waitExit() != 0) throw std::runtime_error(dump->process().describe());
    mComparison.dump(fmt::format("dump after '{}'", heading), dump->output("dump").at(0), mModel);
}

std::vector<int64_t> Story::nextSnapshot() {
    support::drainOutput();
    const auto& trace = mStage.native();
    while (trace.at(mTraceJoined).at("native") != "get_current_activity") ++mTraceJoined;
    return trace[mTraceJoined++].at("timestamps");
}

}  // namespace demo
