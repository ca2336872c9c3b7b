// Everything that cannot work: a clear line, a status of its own, and nobody else disturbed.
#include "ProcessTest.h"

namespace {

using support::StageSetup;

class BadInput : public ProcessTest {};

// A stage whose service must not come up; its log.
std::string logOfFailedStart(StageSetup setup) {
    support::Stage stage(std::move(setup));
    stage.startService();
    EXPECT_EQ(1, stage.service().waitExit()) << stage.service().describe();
    const auto client = stage.client({"list"});
    EXPECT_EQ(3, client->process().waitExit()) << client->process().describe();
    return stage.service().err().text();
}

struct BadCommand {
    std::vector<std::string> arguments;
    int status;
    const char* says;
};

}  // namespace

TEST_F(BadInput, CommandsThatCannotWorkSayWhyAndLeaveTheOthersAlone) {
    const auto bystander = stage().readyClient({"watch", "walking:1@5s"});
    const std::string name33(33, 'n');
    const std::vector<BadCommand> commands{
            {{"watch", "hopping:1"},
             2,
             "unknown activity 'hopping'; the service supports: still, walking"},
            {{"watch", "walking:1@soon"}, 2, "'soon' is no latency: it has no number"},
            {{"watch", "walking:1", "--latency", "5"}, 2, "'5' is no latency: it has no unit"},
            {{"watch", "walking:1@1.0000000001s"}, 2, "finer than a nanosecond"},
            {{"watch", "walking:1@9223372037s"}, 2, "too long"},
            {{"watch", "walking:x"}, 2, "'x' is no event type"},
            {{"watch", "walking:1", "--params", "1,2,3"}, 2, "'1,2,3' is not four numbers"},
            {{"watch", "--for", "-1s"}, 2, "--for"},
            {{"watch", "--interface", "2.0"}, 2, "--interface"},
            {{"watch", "--count", "0"}, 2, "'0' is no number of events"},
            {{"walk"}, 2, "subcommand"},
            {{"enable"}, 2, "PAIR"},
            {{"env", "init", "cellar"},
             2,
             "unknown environment 'cellar'; the service supports: home, office"},
            {{"watch", "walking:0"}, 1, "event type 0 is neither 1 nor 2"},
            {{"watch", "walking:3"}, 1, "refused to enable walking:3"},
            {{"enable", "7:1"}, 1, "refused to enable 7:1 (activity 7"},
            {{"watch", "walking:1", "--name", name33}, 1, "33 characters, at most 32"},
            {{"disable", "walking:1"}, 1, "a request belongs to the process that made it"},
            {{"env", "enable", "office:1"}, 1, "refused to enable office:1"},
            {{"env", "init", "home", "--name", name33}, 1, "33 characters"},
            {{"--instance", "elsewhere", "list"}, 3, "IActivityRecognition/elsewhere"},
    };
    for (const BadCommand& bad : commands) {
        SCOPED_TRACE(fmt::format("{}", fmt::join(bad.arguments, " ")));
        const auto client = run(bad.arguments, bad.status);
        const auto& errors = client->process().err().lines();
        ASSERT_EQ(1u, errors.size()) << client->process().describe();
        EXPECT_EQ(0u, errors[0].text.find("activityctl: "));
        EXPECT_NE(std::string::npos, errors[0].text.find(bad.says)) << errors[0].text;
        EXPECT_EQ(0u, client->output("ready").size());
    }
    // The bystander's request is as it was, and it is still served.
    told();
    const auto joiner = stage().readyClient({"watch", "walking:1@6s"});
    EXPECT_EQ((std::vector<std::string>{"enable 1:1 5s", "current"}), told());
    stage().release("go");
    run({"flush"});
    bystander->waitForEvents("onActivityChangedV1_1", 1);
}

TEST_F(BadInput, RefusedPairTakesTheEarlierOnesOfTheSameCommandBack) {
    run({"watch", "walking:1@2s", "walking:3"}, 1);
    EXPECT_EQ((std::vector<std::string>{"enable 1:1 2s", "disable 1:1"}), told());
}

TEST_F(BadInput, NameOf32CharactersReachesTheModuleWhole) {
    const std::string name(32, 'n');
    const auto client = stage().readyClient({"watch", "walking:1@1s", "--name", name});
    EXPECT_EQ((std::vector<std::string>{"extend 1:1 1s 0,0,0,0 '" + name + "'"}), told());
}

TEST_F(BadInput, MistakeOnTheControlLineEndsNothing) {
    const auto client = stage().readyClient({"watch", "walking:1@5s", "--control"});
    for (const char* line : {"enable walking:3", "disable still:1", "enable hopping", "dance"}) {
        client->command(line);
    }
    client->waitFor("failed", 4);
    client->command("flush");
    client->waitFor("flushed");
    EXPECT_EQ((std::vector<std::string>{"enable 1:1 5s", "flush"}), told());
    EXPECT_EQ(0, client->leave());
}

TEST_F(BadInput, SecondServiceUnderTheSameNameLeavesTheFirstServing) {
    const auto watching = stage().readyClient({"watch", "walking:1@5s"});
    const auto second = stage().anotherService({{"AR_SIMULATOR_TRACE", ""}});
    EXPECT_EQ(1, second->waitExit()) << second->describe();
    EXPECT_NE(std::string::npos, second->err().text().find("refused")) << second->describe();
    run({"list"});
    run({"status", "--interface", "1.0"});
    stage().release("go");
    run({"flush"});
    watching->waitForEvents("onActivityChangedV1_1", 1);
}

TEST(BadStart, MissingModuleIsNamed) {
    StageSetup setup;
    setup.hardware = "nonexistent";
    const std::string log = logOfFailedStart(setup);
    EXPECT_NE(std::string::npos, log.find("hw_get_module activity_recognition failed: ")) << log;
}

TEST(BadStart, BrokenScenarioIsNamedWithFileAndLine) {
    support::Stage folder;
    StageSetup setup;
    setup.scenario = folder.write("broken.scn", "activities still\n0 activity flying 1\n");
    const std::string log = logOfFailedStart(setup);
    EXPECT_NE(std::string::npos, log.find("broken.scn:2: no activity is named 'flying'")) << log;
    EXPECT_NE(std::string::npos,
              log.find("activity_recognition_impl V1.1 open activity_recognition_hidl result: -"))
            << log;
}

TEST(BadStart, ModuleThatFailsToOpenIsToldWithItsResult) {
    StageSetup setup;
    setup.speed = "fast";
    const std::string log = logOfFailedStart(setup);
    EXPECT_NE(std::string::npos,
              log.find("activity_recognition_impl V1.1 open activity_recognition_hidl result: -22"))
            << log;
}
