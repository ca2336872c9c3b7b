// Processes that are killed: each table of the service loses exactly their entries.
#include <set>

#include "ProcessTest.h"

using DyingProcesses = ProcessTest;

TEST_F(DyingProcesses, ProcessInEveryTableLeavesEachAndTheOthersAreServedOn) {
    const auto newer = ready("watch walking:1@5s");
    const auto older = ready("--interface 1.0 watch still:2@5s");
    run("env init home");
    const auto inside = ready("env watch home:1@0");
    const auto outside = ready("--interface 1.0 env watch");
    // A client that can be in every table at once.
    const auto dying = stage().program("VtsHalActivityRecognitionV1_1TargetTest", {"--client"});
    dying->write(
            "register activity 1.0\nregister activity 1.1\nregister environment 1.0\n"
            "register environment 1.1\nenable 1 1 1000000000\n");
    const auto answers = [&] { return dying->out().text() == "= 0\n= 0\n= 0\n= 0\n= 0\n"; };
    support::require(answers, "five answers", [&] { return dying->describe(); });
    told();

    killHard(*dying);
    stage().waitForDeath(dying->pid(), 4);
    for (const char* match : {"######V1_1 Match, remainder cb[1]!!!######",
                              "######V1_0 Match, remainder cb[1]!!!######",
                              "######V1_1 ENV Match, remainder cb[1]!!!######",
                              "######V1_0 ENV Match, remainder cb[1]!!!######"}) {
        EXPECT_EQ(1u, stage().countInLog(match)) << match;
    }
    EXPECT_EQ(4u, stage().countInLog(fmt::format("serviceDied, cookie is {}", dying->pid())));
    EXPECT_EQ(Calls{}, told());

    // The environment record is reported at once, so all is played when it is here.
    stage().release("go");
    inside->waitForEvents("onEnvironmentChangedV1_1", 1);
    outside->waitForEvents("onEnvironmentChanged", 1);
    run("flush");
    newer->waitForEvents("onActivityChangedV1_1", 1);
    older->waitForEvents("onActivityChanged", 2);
    EXPECT_EQ(11, newer->events("onActivityChangedV1_1")[0].at("extra"));
}

TEST_F(DyingProcesses, AreCleanedUpOnSeveralThreadsAtOnce) {
    // A delivery holds the lock that cleaning up needs, here while its second client is stopped.
    const auto reached = ready("watch walking:1@1s"), stopped = ready("watch walking:1@1s");
    std::vector<std::unique_ptr<Client>> dying;
    for (int i = 0; i < 6; ++i) dying.push_back(ready("watch walking:1@1s"));
    const auto require = [this](const std::function<bool()>& condition, const char* what) {
        support::require(condition, what, [this] { return stage().service().describe(); });
    };
    stopped->process().signal(SIGSTOP);
    stage().release("go");
    require([&] { return stage().countInLog("able to onActivityChangedV1_1") == 1; }, "one call");
    for (const auto& client : dying) killHard(client->process());

    const auto wholePool = [&] {
        std::set<std::string> threads;
        for (const auto& line : stage().service().err().lines()) {
            if (line.text.find("serviceDied") < line.text.size())
                threads.insert(words(line.text)[5]);
        }
        return threads.size() == 4;
    };
    require(wholePool, "the whole pool");
    stopped->process().signal(SIGCONT);
    require([&] { return stage().countInLog("V1_1 Match, remainder cb[2]") == 1; }, "two left");
}

TEST_F(DyingProcesses, RequestsOfAVersion10ClientOutliveIt) {
    const auto staying = ready("watch walking:1@5s --control");
    const auto dying = ready("--interface 1.0 watch walking:1@2s");
    killHard(dying->process());
    stage().waitForDeath(dying->pid());
    told();
    staying->command("enable walking:1@4s");
    staying->waitFor("enabled");
    EXPECT_EQ((Calls{"enable 1 1 2000000000"}), told());
    EXPECT_EQ(0, staying->leave());
    EXPECT_EQ(Calls{"enable 1 1 2000000000"}, told()) << "the dead client's request holds the pair";
}

TEST_F(DyingProcesses, WatchersAreToldWhenTheServiceDies) {
    const auto watching = ready("watch walking:1");
    const auto inside = ready("env watch");
    stage().service().signal(SIGKILL);
    for (Client* client : {watching.get(), inside.get()}) {
        EXPECT_EQ(5, client->process().waitExit()) << client->process().describe();
        EXPECT_THAT(client->process().err().text(), HasSubstr("died"));
    }
}
