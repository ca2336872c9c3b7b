// activityctl from its command line to what it prints and how it ends.
#include "ProcessTest.h"

namespace {

using Calls = std::vector<std::string>;

class Activityctl : public ProcessTest {
  protected:
    // As a person sees it, without --json.
    std::string text(const Arguments& arguments) {
        const auto process = stage().program("activityctl", arguments);
        EXPECT_EQ(0, process->waitExit()) << process->describe();
        return process->out().text();
    }
};

}  // namespace

TEST_F(Activityctl, ListsInBothVersionsAndOnBothSides) {
    for (const char* version : {"1.0", "1.1"}) {
        EXPECT_EQ("  0 still\n  1 walking\n", text({"list", "-i", version}));
        EXPECT_EQ("  0 home\n  1 office\n", text({"env", "list", "-i", version}));
    }
    EXPECT_EQ(nlohmann::json::parse(R"([{"id":0,"name":"still"},{"id":1,"name":"walking"}])"),
              run({"list"})->output("list")[0].at("activities"));
}

TEST_F(Activityctl, StatusTellsVersionsInterfacesListsAndWhatIsCurrent) {
    const auto before = run({"status"})->output("status")[0];
    EXPECT_EQ((std::vector<std::string>{"1.1", "1.0"}), before.at("versions"));
    EXPECT_EQ(3u, before.at("interfaces").size());
    EXPECT_TRUE(before.at("activity").at("current").empty());

    run({"env", "init", "home"});
    const auto marker = stage().readyClient({"env", "watch", "home:1@0"});
    stage().release("go");
    marker->waitForEvents("onEnvironmentChangedV1_1", 1);
    const auto after = run({"status"})->output("status")[0];
    EXPECT_EQ(2u, after.at("activity").at("current").size());
    EXPECT_EQ("kitchen", after.at("environment").at("current")[0].at("name"));
    // A version 1.0 client is not told "extra".
    const auto older = run({"current", "-i", "1.0"})->output("current")[0].at("records");
    const auto newer = run({"current"})->output("current")[0].at("records");
    ASSERT_EQ(2u, older.size());
    EXPECT_EQ(0u, older[0].count("extra"));
    EXPECT_EQ(1u, newer[0].count("extra"));
    EXPECT_NE(std::string::npos, text({"status"}).find("supported: still, walking"));
}

TEST_F(Activityctl, WatchPrintsEachRecordWholeInItsVersion) {
    const auto newer = stage().readyClient({"watch", "walking:1@1s", "--params", "0,0,0,0"});
    const auto older = stage().readyClient({"watch", "still:2@1s", "-i", "1.0"});
    stage().release("go");
    newer->waitForEvents("onActivityChangedV1_1", 1);
    older->waitForEvents("onActivityChanged", 2);
    newer->waitForEvents("onActivityExtendChangedV1_1", 1);
    older->waitForEvents("onActivityExtendChanged", 1);

    auto extended = newer->events("onActivityExtendChangedV1_1")[0];
    extended.erase("timestamp");
    EXPECT_EQ(nlohmann::json::parse(R"({"activity":1,"activity_name":"walking","event_type":1,
                  "extra":13,"value":14,"context_data":[1,2,3,4],"name":"stride"})"),
              extended);
    auto olderExtended = older->events("onActivityExtendChanged")[0];
    olderExtended.erase("timestamp");
    extended.erase("extra");
    EXPECT_EQ(extended, olderExtended);
    EXPECT_EQ(0, newer->leave());
    EXPECT_EQ("signal", newer->output("end")[0].at("reason"));
}

TEST_F(Activityctl, WatchForPeopleIsALinePerEvent) {
    const auto process = stage().program("activityctl", {"watch", "walking:1@1s", "--count", "1"});
    support::require([&] { return !process->out().lines().empty(); }, "the first line",
                     [&] { return process->describe(); });
    stage().release("go");
    EXPECT_EQ(0, process->waitExit());
    const auto& lines = process->out().lines();
    ASSERT_EQ(2u, lines.size()) << process->describe();
    EXPECT_NE(std::string::npos, lines[0].text.find(fmt::format(
                                         "watching walking:1@1s as process {}", process->pid())));
    EXPECT_EQ('+', lines[1].text[0]);
    EXPECT_NE(std::string::npos, lines[1].text.find("s walking:1 timestamp ")) << lines[1].text;
    EXPECT_NE(std::string::npos, lines[1].text.find(" extra 11")) << lines[1].text;
    EXPECT_EQ((Calls{"enable 1:1 1s", "disable 1:1"}), told());
}

TEST_F(Activityctl, WatchEndsOnCountTimeSignalQuitAndClosedInputAndDisablesEachTime) {
    const auto byTime = run({"watch", "walking:1@1s", "--for", "10ms"});
    EXPECT_EQ("time", byTime->output("end")[0].at("reason"));
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        const auto bySignal = stage().readyClient({"watch", "walking:1@1s"});
        bySignal->process().signal(number);
        EXPECT_EQ(0, bySignal->process().waitExit());
    }
    const auto byCommand = stage().readyClient({"watch", "walking:1@1s", "--control"});
    byCommand->command("quit");
    EXPECT_EQ(0, byCommand->process().waitExit());
    const auto byInput = stage().readyClient({"watch", "walking:1@1s", "--control"});
    byInput->process().closeInput();
    EXPECT_EQ(0, byInput->process().waitExit());
    Calls calls;
    for (int i = 0; i < 6; ++i) calls.insert(calls.end(), {"enable 1:1 1s", "disable 1:1"});
    EXPECT_EQ(calls, told());
}

TEST_F(Activityctl, PairWithoutEventTypeMeansBothAndNumbersAreTakenAsTheyAre) {
    const auto client = run({"watch", "Walking@3s", "0:2", "--latency", "2500ms", "--for", "0"});
    EXPECT_EQ((Calls{"enable 1:1 3s", "enable 1:2 3s", "enable 0:2 2s", "disable 1:1",
                     "disable 1:2", "disable 0:2"}),
              told());
}

TEST_F(Activityctl, EnableHoldsUntilToldToGoOrLeavesARequestBehind) {
    const auto holding = stage().readyClient({"enable", "walking:1@2s"});
    EXPECT_EQ(Calls{"enable 1:1 2s"}, told());
    EXPECT_EQ(0, holding->leave());
    EXPECT_EQ(Calls{"disable 1:1"}, told());

    run({"enable", "walking:1@2s", "--leave"});
    const auto later = stage().readyClient({"watch", "walking:1@5s"});
    EXPECT_EQ((Calls{"enable 1:1 2s", "enable 1:1 2s", "current"}), told());
    EXPECT_EQ(0, later->leave());
    EXPECT_EQ(Calls{"enable 1:1 2s"}, told()) << "the request that was left is still there";
}

TEST_F(Activityctl, ControlLinesWorkLikeCommands) {
    const auto client = stage().readyClient({"watch", "--control"});
    client->command("enable walking:1@3s still");
    client->waitFor("enabled", 3);
    client->command("disable still:1");
    client->waitFor("disabled");
    client->command("current");
    client->waitFor("current");
    EXPECT_EQ(0, client->leave());
    EXPECT_EQ((Calls{"enable 1:1 3s", "enable 0:1 1s", "enable 0:2 1s", "disable 0:1", "current",
                     "disable 1:1", "disable 0:2"}),
              told());
}

TEST_F(Activityctl, EnvironmentsFromInitToExit) {
    run({"env", "init", "home", "office", "--params", "1,2,3,4.5", "--name", "plan"});
    run({"env", "enable", "home:7@1.5s"});
    EXPECT_TRUE(run({"env", "current"})->output("current")[0].at("records").empty());
    run({"env", "disable", "home:7"});
    run({"env", "exit", "home"});
    EXPECT_EQ((Calls{"env-init 0 1,2,3,4.5 'plan'", "env-init 1 1,2,3,4.5 'plan'",
                     "env-enable 0:7 1.5s 0,0,0,0 ''", "env-disable 0:7", "env-exit 0 0,0,0,0 ''"}),
              told());
}

TEST_F(Activityctl, HelpTeachesWithExamplesAndNeedsNoService) {
    stage().service().signal(SIGKILL);
    stage().service().waitExit();
    const std::string help = text({"--help"});
    for (const char* part : {"Examples:", "Exit status:", "watch", "PAIR is"}) {
        EXPECT_NE(std::string::npos, help.find(part)) << part;
    }
    EXPECT_NE(std::string::npos, text({"watch", "--help"}).find("--no-wake"));
    run({"list"}, 3);
}
