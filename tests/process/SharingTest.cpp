// Three and more client processes share one pair: what the module is told as they come and go.
#include "ProcessTest.h"

namespace {

using Calls = std::vector<std::string>;

class SharingProcesses : public ProcessTest {};

}  // namespace

TEST_F(SharingProcesses, FastestLeavesAndTheNextLatencyUpIsToldLastLeavesAndItIsDisabled) {
    const auto slow = stage().readyClient({"watch", "walking:1@5s"});
    EXPECT_EQ(Calls{"enable 1:1 5s"}, told());
    const auto fast = stage().readyClient({"watch", "walking:1@2.5s"});
    EXPECT_EQ((Calls{"enable 1:1 2s", "current"}), told());
    const auto middle = stage().readyClient({"--interface", "1.0", "watch", "walking:1@3s"});
    EXPECT_EQ((Calls{"enable 1:1 2s", "current"}), told());

    EXPECT_EQ(0, fast->leave());
    EXPECT_EQ(Calls{"enable 1:1 3s"}, told());
    EXPECT_EQ(0, middle->leave());
    EXPECT_EQ(Calls{"enable 1:1 5s"}, told());
    EXPECT_EQ(0, slow->leave());
    EXPECT_EQ(Calls{"disable 1:1"}, told());
}

TEST_F(SharingProcesses, FastestIsKilledAndTheModuleIsToldNothingUntilTheNextEnableOrDisable) {
    const auto slow = stage().readyClient({"watch", "walking:1@5s", "--control"});
    const auto middle = stage().readyClient({"watch", "walking:1@4s"});
    const auto fast = stage().readyClient({"watch", "walking:1@1s"});
    told();
    fast->process().signal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, fast->process().waitExit());
    stage().waitForDeath(fast->pid());
    EXPECT_EQ(Calls{}, told());

    slow->command("enable walking:1@6s");
    slow->waitFor("enabled");
    EXPECT_EQ((Calls{"enable 1:1 4s", "current"}), told());

    // The same with a disable as the next call of the pair.
    const auto faster = stage().readyClient({"watch", "walking:1@1s"});
    told();
    faster->process().signal(SIGKILL);
    faster->process().waitExit();
    stage().waitForDeath(faster->pid());
    EXPECT_EQ(Calls{}, told());
    EXPECT_EQ(0, middle->leave());
    EXPECT_EQ(Calls{"enable 1:1 6s"}, told());
}

TEST_F(SharingProcesses, ExtendedPairIsReEnabledWithTheNoWakeParametersOfOneWhoStays) {
    const auto noWake = stage().readyClient({"watch", "walking:1", "--no-wake", "--name", "trip"});
    EXPECT_EQ(Calls{"extend 1:1 604800s 1,0,0,0 'trip'"}, told());
    const auto other =
            stage().readyClient({"watch", "walking:1@3s", "--params", "2,0,0,0", "--name", "o"});
    EXPECT_EQ((Calls{"extend 1:1 3s 2,0,0,0 'o'", "current"}), told());
    const auto leaving = stage().readyClient({"watch", "walking:1@1s", "--params", "2,0,0,0"});
    EXPECT_EQ((Calls{"extend 1:1 1s 2,0,0,0 ''", "current"}), told());
    EXPECT_EQ(0, leaving->leave());
    EXPECT_EQ(Calls{"extend 1:1 3s 1,0,0,0 'trip'"}, told());
    const auto plain = stage().readyClient({"--interface", "1.0", "watch", "walking:1@4s"});
    EXPECT_EQ((Calls{"enable 1:1 3s", "current"}), told());
    EXPECT_EQ(0, other->leave());
    EXPECT_EQ(Calls{"enable 1:1 4s"}, told()) << "a plain request drops the others' parameters";
}

TEST_F(SharingProcesses, EnvironmentCallsOfSeveralProcessesReachTheModuleOneToOne) {
    run({"env", "init", "home"});
    const auto first = stage().readyClient({"env", "watch", "home:1@2.5s"});
    const auto second = stage().readyClient({"--interface", "1.0", "env", "watch", "home:1@-1ns"});
    run({"env", "disable", "home:1"});
    EXPECT_EQ((Calls{"env-init 0 0,0,0,0 ''", "env-enable 0:1 2.5s 0,0,0,0 ''",
                     "env-enable 0:1 -1e-09s 0,0,0,0 ''", "env-disable 0:1"}),
              told());
}
