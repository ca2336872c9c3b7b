// SPDX-License-Identifier: Apache-2.0
// activityctl from its command line to what it prints and how it ends. What it prints of events in
// either version is compared with the model in the demo.
#include <filesystem>

#include "ProcessTest.h"

namespace {

using Activityctl = ProcessTest;

}  // namespace

TEST_F(Activityctl, ListsInBothVersionsAndOnBothSides) {
    for (const std::string version : {"1.0", "1.1"}) {
        EXPECT_EQ("  0 still\n  1 walking\n", text("list -i " + version));
        EXPECT_EQ("  0 home\n  1 office\n", text("env list -i " + version));
    }
    EXPECT_EQ("walking", run("list")->output("list")[0].at("activities")[1].at("name"));
}

TEST_F(Activityctl, StatusTellsVersionsInterfacesListsAndWhatIsCurrent) {
    run("env init home");
    const auto marker = ready("env watch home:1@0");
    stage().release("go");
    marker->waitForEvents("onEnvironmentChangedV1_1", 1);
    const auto status = run("status")->output("status")[0];
    EXPECT_EQ((std::vector<std::string>{"1.1", "1.0"}), status.at("versions"));
    EXPECT_EQ(3u, status.at("interfaces").size());
    EXPECT_EQ(2u, status.at("activity").at("current").size());
    EXPECT_EQ("kitchen", status.at("environment").at("current")[0].at("name"));
    EXPECT_THAT(text("status"), HasSubstr("supported: still, walking"));
    // A version 1.0 client is not told "extra".
    EXPECT_EQ(0u, run("current -i 1.0")->output("current")[0].at("records").at(1).count("extra"));
    EXPECT_EQ(13, run("current")->output("current")[0].at("records").at(1).at("extra"));
}

TEST_F(Activityctl, WatchForPeopleIsALinePerEvent) {
    const auto process = speaking("activityctl", "watch walking:1@1s --count 1");
    support::require([&] { return process->out().lines().size() == 3; }, "what is current",
                     [&] { return process->describe(); });
    stage().release("go");
    EXPECT_EQ(0, process->waitExit());
    const auto& lines = process->out().lines();
    ASSERT_EQ(5u, lines.size()) << process->describe();
    EXPECT_THAT(lines[0].text,
                HasSubstr(fmt::format("watching walking:1@1s as process {}", process->pid())));
    EXPECT_EQ("current now:", lines[1].text);
    EXPECT_EQ("nothing is current", lines[2].text);
    EXPECT_THAT(lines[3].text,
                ::testing::MatchesRegex("\\+.*s walking:1 timestamp .*\\....s extra 11"));
    EXPECT_THAT(lines[4].text, ::testing::MatchesRegex("1 events in .*s; ended by: count"));
    EXPECT_EQ((Calls{"enable 1 1 1000000000", "disable 1 1"}), told());
}

TEST_F(Activityctl, WatchEndsOnTimeSignalQuitAndClosedInputAndDisablesEachTime) {
    const struct {
        std::string arguments;
        std::function<void(Client&)> end;
        std::string reason;
    } cases[] = {
            {"--for 10ms", [](Client&) {}, "time"},
            {"", [](Client& client) { client.process().signal(SIGINT); }, "signal"},
            {"", [](Client& client) { client.process().signal(SIGTERM); }, "signal"},
            {"", [](Client& client) { client.process().signal(SIGHUP); }, "signal"},
            {"--control", [](Client& client) { client.command("quit"); }, "quit"},
            {"--control", [](Client& client) { client.process().closeInput(); }, "end of commands"},
    };
    for (const auto& c : cases) {
        const auto client = ready("watch walking:1@1s " + c.arguments);
        c.end(*client);
        EXPECT_EQ(0, client->process().waitExit());
        EXPECT_EQ(c.reason, client->output("end")[0].at("reason"));
        EXPECT_EQ((Calls{"enable 1 1 1000000000", "disable 1 1"}), told());
    }
}

TEST_F(Activityctl, WatchersAreToldWhenTheServiceDies) {
    const auto watching = ready("watch walking:1");
    const auto inside = ready("env watch");
    stage().service().signal(SIGKILL);
    for (Client* client : {watching.get(), inside.get()}) {
        EXPECT_EQ(5, client->process().waitExit()) << client->process().describe();
        EXPECT_THAT(client->process().err().text(), HasSubstr("died"));
        EXPECT_EQ("service died", client->output("end")[0].at("reason"));
    }
}

TEST_F(Activityctl, WatchGoesOnWithTheNextServiceAndCommandsCanWaitForIt) {
    const auto watching = ready("watch walking:1@2s --reconnect");
    stage().service().signal(SIGKILL);
    watching->waitFor("disconnected");
    const auto waiting = stage().client(words("list --wait"));
    run("list --wait=10ms", 3);
    told();
    stage().startService();
    EXPECT_EQ(0, waiting->process().waitExit());
    watching->waitFor("ready", 2);
    EXPECT_EQ(Calls{"enable 1 1 2000000000"}, told());
    EXPECT_EQ(0, watching->leave());
}

TEST_F(Activityctl, PairsLatenciesAndExtrasAreUnderstood) {
    run("watch Walking@3s 0:2 --latency 2500ms --for 0");
    EXPECT_EQ((Calls{"enable 1 1 3000000000", "enable 1 2 3000000000", "enable 0 2 2000000000",
                     "disable 1 1", "disable 1 2", "disable 0 2"}),
              told());
    const std::string longest(32, 'n');
    run("watch still:1 --no-wake --for 0 --name " + longest);
    EXPECT_EQ((Calls{"extend 0 1 604800000000000 [1,0,0,0] \"" + longest + "\"", "disable 0 1"}),
              told());
}

TEST_F(Activityctl, EnableHoldsUntilToldToGoOrLeavesARequestBehind) {
    const auto holding = ready("enable walking:1@2s");
    EXPECT_EQ(Calls{"enable 1 1 2000000000"}, told());
    EXPECT_EQ(0, holding->leave());
    EXPECT_EQ(Calls{"disable 1 1"}, told());

    run("enable walking:1@2s --leave");
    const auto later = ready("watch walking:1@5s");
    EXPECT_EQ((Calls{"enable 1 1 2000000000", "enable 1 1 2000000000"}), told());
    EXPECT_EQ(0, later->leave());
    EXPECT_EQ(Calls{"enable 1 1 2000000000"}, told()) << "the request that was left is still there";
}

TEST_F(Activityctl, ControlLinesWorkLikeCommandsAndMistakesEndNothing) {
    const auto client = ready("watch --control");
    for (const char* line : {"enable walking:1@3s still", "disable still:1", "enable walking:3",
                             "disable still:1", "enable hopping", "dance", "current", "flush"}) {
        client->command(line);
    }
    client->waitFor("flushed");
    EXPECT_EQ(3u, client->output("enabled").size());
    EXPECT_EQ(4u, client->output("failed").size());
    EXPECT_EQ(1u, client->output("current").size());
    EXPECT_EQ(0, client->leave());
    EXPECT_EQ((Calls{"enable 1 1 3000000000", "enable 0 1 1000000000", "enable 0 2 1000000000",
                     "disable 0 1", "flush", "disable 1 1", "disable 0 2"}),
              told());
}

TEST_F(Activityctl, EnvironmentsFromInitToExit) {
    run("env init home office --params 1,2,3,4.5 --name plan");
    run("env enable home:7@1.5s office:1@-1ns");
    EXPECT_TRUE(run("env current")->output("current")[0].at("records").empty());
    run("env disable home:7");
    run("env exit home");
    EXPECT_EQ((Calls{"env-init 0 [1,2,3,4.5] \"plan\"", "env-init 1 [1,2,3,4.5] \"plan\"",
                     "env-enable 0 7 1500000000 [0,0,0,0] \"\"", "env-enable 1 1 -1 [0,0,0,0] \"\"",
                     "env-disable 0 7", "env-exit 0 [0,0,0,0] \"\""}),
              told());
}

TEST_F(Activityctl, HelpNeedsNoService) {
    stage().service().signal(SIGKILL);
    stage().service().waitExit();
    EXPECT_THAT(text("--help"), HasSubstr("PAIR is ACTIVITY[:EVENT][@LATENCY]"));
    EXPECT_THAT(text("watch --help"), HasSubstr("--no-wake"));
    run("list", 3);
}

TEST_F(Activityctl, ScenarioCheckNamesEveryMistakeOrTellsWhatIsPlayed) {
    const std::string file = stage().write("checked.scn", "activities a a\n0 activity b 1\nwait\n");
    const auto bad = stage().program("activityctl", {"scenario", "check", file});
    EXPECT_EQ(2, bad->waitExit());
    EXPECT_EQ(fmt::format("{0}:1: 'a' is named twice\n{0}:2: no activity is named 'b'\n"
                          "{0}:3: 'wait' takes a name of 1 to 31 bytes\n",
                          file),
              bad->out().text());
    stage().write("checked.scn",
                  "0.5 activity still 1 times=3 extra=7\n0.5 activity still 1 batch=0\n"
                  "wait go\n0.5 answer flush -5\n1 environment home 9 value=8\n");
    EXPECT_EQ(R"(activity still:1 timestamp 0.500s extra 7, 3 times
activity still:1 timestamp 0.500s extra 0 batch=0
waits at 0.500s for 'go'
from 0.500s flush answers -5, 1 times
environment home:9 timestamp 1.000s extra 0 value 8 name 'home' data 0,0,0,0
)",
              text("scenario check " + file));
    for (const auto& shipped : std::filesystem::directory_iterator(SOURCES "/scenarios")) {
        EXPECT_THAT(text("scenario check " + shipped.path().string()), HasSubstr("timestamp"));
    }
}
