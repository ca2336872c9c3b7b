// What the tests of real processes share. Helpers throw past their deadlines, which fails the test
// with the output of whoever was waited for.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stage/Stage.h>

#include <string>
#include <vector>

// Two activities and two environments; nothing happens before "go".
constexpr char kScenario[] = R"(
activities    still walking
environments  home office
wait  go
0     activity     walking  1  extra=11
0.01  activity     still    2  extra=12
0.02  extended     walking  1  extra=13 value=14 name=stride data=1,2,3,4
0.03  environment  home     1  extra=15 value=16 name=kitchen
wait  more
1     activity     walking  1  extra=21
1.01  activity     still    2  extra=22
1.02  environment  home     1  extra=25 value=26
)";

class ProcessTest : public ::testing::Test {
  protected:
    using Stage = support::Stage;
    using Client = support::Client;
    using Arguments = std::vector<std::string>;

    void SetUp() override {
        mScenarioStage = std::make_unique<Stage>();
        support::StageSetup setup;
        setup.scenario = mScenarioStage->write("test.scn", kScenario);
        mStage = std::make_unique<Stage>(setup);
        mStage->startService();
        mStage->serving();
    }

    Stage& stage() { return *mStage; }

    // Runs a command to its end.
    std::unique_ptr<Client> run(const Arguments& arguments, int expectedStatus = 0) {
        auto client = stage().client(arguments);
        EXPECT_EQ(expectedStatus, client->process().waitExit()) << client->process().describe();
        return client;
    }

    // What the module was told since the last look: "enable 1:1 5s", "extend 1:1 5s 1,0,0,0 name",
    // "disable 1:1", "current", "flush", "env-enable 0:1 ...".
    std::vector<std::string> told() {
        support::drainOutput();
        std::vector<std::string> calls;
        const auto& trace = stage().native();
        for (; mTold < trace.size(); ++mTold) {
            const std::string call = shorten(trace[mTold]);
            if (!call.empty()) calls.push_back(call);
        }
        return calls;
    }

  private:
    static std::string shorten(const nlohmann::json& line) {
        const std::string slot = line.at("native");
        static const std::map<std::string, std::string> kShort{
                {"enable_activity_event", "enable"},
                {"enable_activity_event_extend", "extend"},
                {"disable_activity_event", "disable"},
                {"get_current_activity", "current"},
                {"flush", "flush"},
                {"init_environment", "env-init"},
                {"exit_environment", "env-exit"},
                {"enable_environment", "env-enable"},
                {"disable_environment", "env-disable"},
        };
        const auto known = kShort.find(slot);
        if (known == kShort.end()) return "";
        std::string text = known->second;
        for (const char* key : {"activity", "environment"}) {
            if (line.count(key)) text += fmt::format(" {}", line.at(key).get<uint32_t>());
        }
        if (line.count("event_type")) {
            text += fmt::format(":{}", line.at("event_type").get<uint32_t>());
        }
        if (line.count("latency_ns")) {
            text += fmt::format(" {}s", line.at("latency_ns").get<int64_t>() / 1e9);
        }
        if (line.count("params")) {
            const std::vector<double> params = line.at("params");
            text += fmt::format(" {} '{}'", fmt::join(params, ","),
                                line.at("name").get<std::string>());
        }
        if (line.count("result") && known->second != "current" && line.at("result") != 0) {
            text += fmt::format(" = {}", line.at("result").get<int>());
        }
        return text;
    }

    std::unique_ptr<Stage> mScenarioStage;  // only a folder
    std::unique_ptr<Stage> mStage;
    size_t mTold = 0;
};
