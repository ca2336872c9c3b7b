// Processes that are killed: each table of the service loses exactly their entries.
#include "ProcessTest.h"

namespace {

using Calls = std::vector<std::string>;

class DyingProcesses : public ProcessTest {
  protected:
    // A client that can be in every table at once.
    std::unique_ptr<support::Process> everywhere() {
        return stage().program("VtsHalActivityRecognitionV1_1TargetTest", {"--client"});
    }

    static void ask(support::Process& client, const std::string& command) {
        const size_t before = client.out().lines().size();
        client.write(command + "\n");
        support::require([&] { return client.out().lines().size() > before; }, command,
                         [&] { return client.describe(); });
        EXPECT_EQ("= 0", client.out().lines()[before].text) << command;
    }
};

}  // namespace

TEST_F(DyingProcesses, ProcessInEveryTableLeavesEachAndTheOthersAreServedOn) {
    const auto newer = stage().readyClient({"watch", "walking:1@5s"});
    const auto older = stage().readyClient({"--interface", "1.0", "watch", "still:2@5s"});
    run({"env", "init", "home"});
    const auto inside = stage().readyClient({"env", "watch", "home:1@0"});
    const auto outside = stage().readyClient({"--interface", "1.0", "env", "watch"});
    const auto dying = everywhere();
    for (const char* side : {"activity", "environment"}) {
        for (const char* version : {"1.0", "1.1"}) {
            ask(*dying, fmt::format("register {} {}", side, version));
        }
    }
    ask(*dying, "enable 1 1 1000000000");
    told();

    dying->signal(SIGKILL);
    dying->waitExit();
    stage().waitForDeath(dying->pid(), 4);
    for (const char* match : {"######V1_1 Match, remainder cb[1]!!!######",
                              "######V1_0 Match, remainder cb[1]!!!######",
                              "######V1_1 ENV Match, remainder cb[1]!!!######",
                              "######V1_0 ENV Match, remainder cb[1]!!!######"}) {
        EXPECT_EQ(1u, stage().countInLog(match)) << match;
    }
    EXPECT_EQ(Calls{}, told());

    // The environment record is reported at once, so all is played when it is here.
    stage().release("go");
    inside->waitForEvents("onEnvironmentChangedV1_1", 1);
    outside->waitForEvents("onEnvironmentChanged", 1);
    run({"flush"});
    newer->waitForEvents("onActivityChangedV1_1", 1);
    older->waitForEvents("onActivityChanged", 2);
    EXPECT_EQ(11, newer->events("onActivityChangedV1_1")[0].at("extra"));
}

TEST_F(DyingProcesses, DeathOfAVersion11ClientTakesItsRequestsAlong) {
    const auto staying = stage().readyClient({"watch", "walking:1@5s", "--control"});
    const auto dying = stage().readyClient({"watch", "walking:1@1s", "still:2@1s"});
    dying->process().signal(SIGKILL);
    dying->process().waitExit();
    stage().waitForDeath(dying->pid());
    told();
    staying->command("enable walking:1@5s");
    staying->waitFor("enabled");
    EXPECT_EQ((Calls{"enable 1:1 5s", "current"}), told());
    // The module still reports the dead client's pair, and nobody gets it.
    stage().release("go");
    run({"flush"});
    staying->waitForEvents("onActivityChangedV1_1", 1);
    for (const auto& event : staying->events("onActivityChangedV1_1")) {
        EXPECT_EQ(1, event.at("activity"));
    }
}

TEST_F(DyingProcesses, RequestsOfAVersion10ClientOutliveIt) {
    const auto staying = stage().readyClient({"watch", "walking:1@5s", "--control"});
    const auto dying = stage().readyClient({"--interface", "1.0", "watch", "walking:1@2s"});
    dying->process().signal(SIGKILL);
    dying->process().waitExit();
    stage().waitForDeath(dying->pid());
    told();
    staying->command("enable walking:1@4s");
    staying->waitFor("enabled");
    EXPECT_EQ((Calls{"enable 1:1 2s", "current"}), told());
    EXPECT_EQ(0, staying->leave());
    EXPECT_EQ(Calls{"enable 1:1 2s"}, told()) << "the dead client's request holds the pair";
}

TEST_F(DyingProcesses, WatchersAreToldWhenTheServiceDies) {
    const auto watching = stage().readyClient({"watch", "walking:1"});
    const auto inside = stage().readyClient({"env", "watch"});
    stage().service().signal(SIGKILL);
    for (Client* client : {watching.get(), inside.get()}) {
        EXPECT_EQ(5, client->process().waitExit()) << client->process().describe();
        EXPECT_NE(std::string::npos, client->process().err().text().find("died"));
    }
}
