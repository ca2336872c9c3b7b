// SPDX-License-Identifier: Apache-2.0
// Everything at once, for the thread sanitizer; and that nobody ends up in another's way.
#include <atomic>
#include <thread>

#include "Dump.h"
#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

using ThreadsTest = ObjectTest;

TEST_F(ThreadsTest, ClientsDeathsAndTheModuleAtOnce) {
    constexpr int kRounds = 200;
    module.current = {Context(1, 1, 0)};
    module.names = {"a"};
    std::vector<std::thread> threads;
    // Batches of a side are delivered one after the other, each whole.
    std::atomic<int> delivering[2] = {};
    const auto alone = [&delivering](int side) {
        return [&delivering, side] {
            EXPECT_EQ(++delivering[side], 1);
            std::this_thread::yield();
            --delivering[side];
        };
    };
    for (int pid = 70; pid < 74; ++pid) {
        threads.emplace_back([this, pid, alone] {
            As caller(pid);
            for (int i = 0; i < kRounds; ++i) {
                const sp<ActClient1> one = new ActClient1("one");
                const sp<EnvClient1> environment = new EnvClient1("environment");
                one->inside = alone(0);
                environment->inside = alone(1);
                ASSERT_TRUE(act->registerActivityCallbackV1_1(one).isOk());
                ASSERT_TRUE(act->registerActivityCallback(new ActClient0("zero")).isOk());
                ASSERT_TRUE(env->registerEnvironmentCallbackV1_1(environment).isOk());
                ASSERT_EQ(int32_t(act->enableActivityEvent(i % 3, 1, 0)), 0);
                ASSERT_EQ(int32_t(act->enableActivityEvent(i % 3, 2, 0)), 0);
                ASSERT_EQ(int32_t(act->enableActivityEventExtend(i % 3, 1, 0, OtherParams())), 0);
                // May fail: another's enable can stand between its steps.
                ASSERT_TRUE(act->disableActivityEvent(i % 3, 1).isOk());
                ASSERT_TRUE(act->disableActivityEvent(i % 3, 2).isOk());
                ASSERT_TRUE(act->getCurrentActivity([](const auto&) {}).isOk());
                act->HandleHidlDeath(pid, wp<IBase>(sp<IBase>(one)));
                env->HandleHidlDeath(pid, wp<IBase>(sp<IBase>(environment)));
            }
        });
    }
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([this] {
            for (int round = 0; round < kRounds; ++round) {
                std::vector<activity_event> events;
                for (uint32_t i = 0; i < 48; ++i)
                    events.push_back({1 + i % 2, i / 2 % 3, 5, 0, {}});
                plain(events);
                extended({Context(1, 1, 1)});
                environment({Context(1, 1, 1)});
            }
        });
    }
    threads.emplace_back([this] {
        for (int i = 0; i < kRounds; ++i) Dump({"--json"}, act.get(), env.get());
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Act::clientsV1_1().size(), 0u);
    EXPECT_EQ(Env::clientsV1_1().size(), 0u);
    EXPECT_EQ(Act::clientsV1_0().size(), 4u);  // each process's first one stayed
    EXPECT_EQ(Act::requests().size(), 0u);
    EXPECT_EQ(Act::lastEvents().size(), 0u);  // went with the requests
}

TEST_F(ThreadsTest, ClientsAreCalledUnderOneLockAndTheModuleUnderNone) {
    const auto client = add<ActClient1>(70, "c");
    client->inside = [] {
        EXPECT_FALSE(Act::isFree(Act::listMutex()));
        EXPECT_TRUE(Act::isFree(Act::eventMutex()));
    };
    module.inside = [] {
        EXPECT_TRUE(Act::isFree(Act::listMutex()));
        EXPECT_TRUE(Act::isFree(Act::eventMutex()));
    };
    enable(70, 1, 1, 0);
    enableExtended(70, 1, 1, 0, OtherParams());
    plain({{1, 1, 5, 0, {}}});
    extended({Context(1, 1, 5)});
    disable(70, 1, 1);
    act->flush().isOk();
    EXPECT_EQ(TakeJournal().size(), 2u);
}

TEST_F(ThreadsTest, RacingFirstRegistrationsShareOneRecipient) {
    std::vector<sp<ActClient0>> clients;
    std::vector<std::thread> threads;
    std::atomic<bool> go{false};
    for (int i = 0; i < 4; ++i) {
        clients.push_back(new ActClient0("c"));
        threads.emplace_back([this, &go, i, client = clients.back()] {
            while (!go) std::this_thread::yield();
            enter(70 + i, client);
        });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Act::clientsV1_0().size(), 4u);
    // The runtime keeps recipients weakly: one that was replaced would take its links along.
    for (const auto& client : clients) {
        EXPECT_EQ(client->recipients[0].promote(), Act::sharedRecipient(*act));
    }
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
