// SPDX-License-Identifier: Apache-2.0
// What the tests of real processes share. Helpers throw past their deadlines, which fails the test
// with the output of whoever was waited for. What a story of many clients shows stands in the demo,
// which is a test of its own.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <stage/Stage.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

using support::Client;
using support::Process;
using support::Stage;
using support::StageSetup;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using Calls = std::vector<std::string>;

// Two activities and two environments; nothing happens before "go".
constexpr char kScenario[] = R"(
activities    still walking
environments  home office
speed step
wait  go
0     activity     walking  1  extra=11
0.01  activity     still    2  extra=12
0.02  extended     walking  1  extra=13 value=14 name=stride data=1,2,3,4
0.03  environment  home     1  extra=15 value=16 name=kitchen
)";

inline StageSetup playing(const std::string& scenarioPath) {
    StageSetup setup;
    setup.scenario = scenarioPath;
    return setup;
}

class ProcessTest : public ::testing::Test {
  protected:
    explicit ProcessTest(const std::string& scenario = kScenario)
        : mStage(playing(mFiles.write("test.scn", scenario))) {}
    void SetUp() override {
        mStage.startService();
        mStage.serving();
    }

    Stage& stage() { return mStage; }

    // Command lines are split at blanks.
    static std::vector<std::string> words(const std::string& line) {
        std::istringstream stream(line);
        return {std::istream_iterator<std::string>(stream), {}};
    }
    // A client that has enabled what it wants.
    std::unique_ptr<Client> ready(const std::string& line) {
        return mStage.readyClient(words(line));
    }
    // Runs a command to its end.
    std::unique_ptr<Client> run(const std::string& line, int expectedStatus = 0) {
        auto client = mStage.client(words(line));
        EXPECT_EQ(expectedStatus, client->process().waitExit()) << client->process().describe();
        return client;
    }
    // As above, as a person sees it.
    std::string text(const std::string& line) {
        const auto process = mStage.program("activityctl", words(line));
        EXPECT_EQ(0, process->waitExit()) << process->describe();
        return process->out().text();
    }
    // A program that has printed its first line.
    std::unique_ptr<Process> speaking(const std::string& program, const std::string& line) {
        auto process = mStage.program(program, words(line));
        support::require([&] { return !process->out().lines().empty(); }, "the first line",
                         [&] { return process->describe(); });
        return process;
    }

    // What the module was told since the last look, such as "enable 1 1 5000000000",
    // "extend 1 1 1000000000 [1,0,0,0] \"name\"", "disable 1 1" or "env-init 0 [0,0,0,0] \"\"".
    Calls told() {
        support::drainOutput();
        Calls calls;
        const auto& trace = mStage.native();
        for (; mTold < trace.size(); ++mTold) {
            const std::string call = shorten(trace[mTold]);
            if (!call.empty()) calls.push_back(call);
        }
        return calls;
    }

  private:
    static std::string shorten(const nlohmann::json& line) {
        static const std::regex kSlots(
                "(enable|disable|init|exit)_(activity_event|environment)(_extend)?|flush");
        const std::string slot = line.at("native");
        std::smatch parts;
        if (!std::regex_match(slot, parts, kSlots)) return "";
        std::string text = parts[2] == "environment" ? "env-" + parts.str(1)
                           : parts[3].matched        ? "extend"
                           : parts[1].matched        ? parts.str(1)
                                                     : slot;
        for (const char* key :
             {"activity", "environment", "event_type", "latency_ns", "params", "name"}) {
            if (line.count(key)) text += " " + line.at(key).dump();
        }
        const int result = line.at("result");
        return result < 0 ? fmt::format("{} = {}", text, result) : text;
    }

    Stage mFiles;  // only a folder
    Stage mStage;
    size_t mTold = 0;
};
