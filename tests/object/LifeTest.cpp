// SPDX-License-Identifier: Apache-2.0
// Death and the life of the objects. Registration is compared with the model, see ModelTest.
#include <android/log.h>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

using DeathTest = ObjectTest;

TEST_F(DeathTest, TakesTheRequestsOfAVersion1_1ClientOnly) {
    const auto one = add<ActClient1>(70, "one");
    const auto zero = add<ActClient0>(70, "zero");
    const auto other = add<ActClient1>(71, "other");
    enable(70, 1, 1, 0);
    enable(71, 1, 1, 0);
    enable(70, 2, 1, 0);
    plain({{1, 1, 10, 0, {}}});
    Act::barriers().push_back({70, 1, 1, 5});
    module.take();
    // The client table is free meanwhile: whoever registers now does not wait for the unlinking.
    zero->insideUnlink = [this] { add<ActClient1>(72, "third"); };
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(zero)));
    EXPECT_EQ(Act::requests().size(), 3u);
    // Both recipients are tried, whichever version died: the process's own, then the shared one.
    EXPECT_EQ(zero->unlinked,
              (std::vector<sp<hidl_death_recipient>>{one->recipients[0].promote(),
                                                     zero->recipients[0].promote()}));
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(one)));
    EXPECT_EQ(Texts(Act::requests()), Lines{"71 1 1 1000000000"});
    EXPECT_EQ(Act::natives(*act).size(), 2u);
    EXPECT_EQ(module.take(), Lines{});
    ASSERT_EQ(Act::clientsV1_1().size(), 2u);
    EXPECT_EQ(Act::clientsV1_1().keyAt(Act::clientsV1_1().keyAt(0) != other), other);
    // What a death leaves behind.
    EXPECT_EQ(Texts(Act::barriers()), Lines{"70 1 1 5"});
    EXPECT_EQ(Texts(Act::lastEvents()), (Lines{"70 1 1 10", "71 1 1 10"}));
    EXPECT_EQ(Act::reported().size(), 2u);
}

TEST_F(DeathTest, TheNextProcessOfTheIdTakesOverWhatStayed) {
    const auto zero = add<ActClient0>(70, "zero");
    enable(70, 1, 1, 0);
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(zero)));
    const auto one = add<ActClient1>(70, "one");
    plain({{1, 1, 10, 0, {}}});
    EXPECT_EQ(TakeJournal(), Lines{"one plain (1,1,10,0)"});
    act->HandleHidlDeath(70, wp<IBase>(sp<IBase>(one)));
    EXPECT_TRUE(Act::requests().empty());
}

using LifeTest = ObjectTest;

TEST_F(LifeTest, AClientsRecipientKeepsTheObjectAlive) {
    const auto client = add<ActClient1>(70, "1");
    const auto environment = add<EnvClient0>(70, "0");
    TakeLog();
    const wp<ActivityInterface> weakAct = std::exchange(act, nullptr);
    const wp<EnvironmentInterface> weakEnv = std::exchange(env, nullptr);
    EXPECT_EQ(TakeLog(), Lines{});
    client->recipients[0].promote()->serviceDied(70, wp<IBase>(sp<IBase>(client)));
    environment->recipients[0].promote()->serviceDied(70, wp<IBase>(sp<IBase>(environment)));
    EXPECT_EQ(Act::clientsV1_1().size() + Env::clientsV1_0().size(), 0u);
    act = weakAct.promote();
    env = weakEnv.promote();
}

TEST_F(LifeTest, DestructionDropsClientsAndKeepsRequests) {
    add<ActClient1>(1, "1");
    enable(1, 1, 1, 0);
    drop();
    EXPECT_EQ(Act::clientsV1_1().size(), 0u);
    EXPECT_EQ(Act::requests().size(), 1u);
}

TEST_F(LifeTest, WithoutTablesTheObjectsLiveAndSaySo) {
    drop();
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl: Deconstruct ActivityInterface",
                                "I AR_impl_Env: Deconstruct EnvironmentInterface"}));
    module = {};
    act = new ActivityInterface(nullptr);
    env = new EnvironmentInterface(nullptr);
    EXPECT_EQ(TakeLog(),
              (Lines{"I AR_impl: Construct ActivityInterface",
                     "E AR_impl: ActivityInterface: mImpl interface is not available",
                     "E AR_impl_Env: EnvironmentInterface: mImpl interface is not available"}));
    EXPECT_EQ(module.activity, nullptr);
}

TEST_F(LifeTest, ASecondObjectEndsTheProcess) {
    const auto dies = [](auto make) {
        __android_log_set_logger(__android_log_stderr_logger);
        make();
    };
    EXPECT_DEATH(dies([] { new ActivityInterface(&kActivityTable); }),
                 "AR_impl.*Assertion failed: sInterfaceExists");
    EXPECT_DEATH(dies([] { new EnvironmentInterface(&kEnvironmentTable); }),
                 "AR_impl_Env.*Assertion failed: sInterfaceExists");
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
