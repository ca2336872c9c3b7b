// SPDX-License-Identifier: Apache-2.0
// Everything that cannot work: a clear line, a status of its own, and nobody else disturbed.
#include "ProcessTest.h"

using BadInput = ProcessTest;

TEST_F(BadInput, CommandsThatCannotWorkSayWhyAndLeaveTheOthersAlone) {
    const auto bystander = ready("watch walking:1@5s");
    const std::string name33(33, 'n');
    const struct {
        std::string command;
        int status;
        const char* says;
    } commands[] = {
            {"watch hopping:1", 2, "unknown activity 'hopping'; the service supports: still, walk"},
            {"watch wakling:1", 2, "did you mean walking? the service supports"},
            {"watch walking:1@soon", 2, "'soon' is no latency: it has no number"},
            {"watch walking:1 --latency 5", 2, "'5' is no latency: it has no unit"},
            {"watch walking:1@1.0000000001s", 2, "finer than a nanosecond"},
            {"watch walking:1@9223372037s", 2, "too long"},
            {"watch walking:x", 2, "'x' is no event type"},
            {"watch walking:1 --params 1,2,3", 2, "'1,2,3' is not four numbers"},
            {"watch --for -1s", 2, "--for"},
            {"watch --for 5", 2, "'5' is no time for --for: it has no unit"},
            {"watch --interface 2.0", 2, "--interface"},
            {"watch --count 0", 2, "'0' is no number of events"},
            {"wacht", 2, "subcommand is required; did you mean watch?"},
            {"enable", 2, "PAIR"},
            {"env init cellar", 2, "unknown environment 'cellar'; the service supports: home, off"},
            {"watch walking:0", 1, "event type 0 is neither 1 nor 2"},
            {"watch walking:3", 1, "refused to enable walking:3"},
            {"enable 7:1", 1,
             "refused to enable 7:1 (activity 7, event type 1, latency 1s): the native "},
            {"watch walking:1 --name " + name33, 1, "33 characters, at most 32"},
            {"disable walking:1", 1, "a request belongs to the process that made it"},
            {"env enable office:1", 1, "refused to enable office:1"},
            {"env init home --name " + name33, 1, "33 characters"},
            {"--instance elsewhere list", 3, "IActivityRecognition/elsewhere"},
    };
    for (const auto& bad : commands) {
        SCOPED_TRACE(bad.command);
        const auto client = run(bad.command, bad.status);
        const auto& errors = client->process().err().lines();
        ASSERT_EQ(1u, errors.size()) << client->process().describe();
        EXPECT_THAT(errors[0].text, StartsWith("activityctl: "));
        EXPECT_THAT(errors[0].text, HasSubstr(bad.says));
        EXPECT_EQ(0u, client->output("ready").size());
    }
    // The bystander's request is as it was, and it is still served.
    told();
    const auto joiner = ready("watch walking:1@6s");
    EXPECT_EQ((Calls{"enable 1 1 5000000000"}), told());
    stage().release("go");
    run("flush");
    bystander->waitForEvents("onActivityChangedV1_1", 1);
    EXPECT_EQ("walking", bystander->events("onActivityChangedV1_1")[0].at("activity_name"));
}

TEST_F(BadInput, RefusedPairTakesTheEarlierOnesOfTheSameCommandBack) {
    run("watch walking:1@2s walking:3", 1);
    EXPECT_EQ((Calls{"enable 1 1 2000000000", "disable 1 1"}), told());
}

TEST_F(BadInput, SecondServiceUnderTheSameNameLeavesTheFirstServing) {
    const auto second = stage().anotherService({{"AR_SIMULATOR_TRACE", ""}});
    EXPECT_EQ(1, second->waitExit()) << second->describe();
    EXPECT_THAT(second->err().text(), HasSubstr("refused"));
    run("list");
    run("status --interface 1.0");
}

TEST(BadStart, ServiceEndsAndNamesWhatWasWrong) {
    Stage files;
    StageSetup noModule;
    noModule.hardware = "nonexistent";
    const StageSetup badModule =
            playing(files.write("broken.scn", "activities still\n0 activity flying 1\n"));
    const struct {
        StageSetup setup;
        std::vector<std::string> says;
    } cases[] = {
            {noModule, {"hw_get_module activity_recognition failed: "}},
            {badModule,
             {"broken.scn:2: no activity is named 'flying'",
              "activity_recognition_impl V1.1 open activity_recognition_hidl result: -22"}},
    };
    for (const auto& c : cases) {
        Stage stage(c.setup);
        stage.startService();
        EXPECT_EQ(1, stage.service().waitExit()) << stage.service().describe();
        for (const std::string& text : c.says) {
            EXPECT_THAT(stage.service().err().text(), HasSubstr(text));
        }
        EXPECT_EQ(3, stage.client({"list"})->process().waitExit());
    }
}
