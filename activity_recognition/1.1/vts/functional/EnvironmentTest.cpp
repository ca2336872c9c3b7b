// The environment side: nothing is kept per client, the module decides.
#include <gtest/gtest.h>

#include "ClientProcess.h"
#include "Target.h"

using ::android::sp;

namespace {

class Environment : public ::testing::Test {
  protected:
    void SetUp() override {
        mService = environments();
        if (mService == nullptr) GTEST_SKIP() << "the module has no environments";
        ASSERT_TRUE(mService->getSupportedEnvironmentsList([this](const auto& names) {
                                mCount = names.size();
                                for (const auto& name : names) EXPECT_FALSE(name.empty());
                            })
                            .isOk());
    }

    sp<V1_1::IEnvironmentInterface> mService;
    size_t mCount = 0;
};

}  // namespace

TEST_F(Environment, SnapshotHasAtMostFiveRecordsInEitherVersion) {
    EXPECT_TRUE(mService->getCurrentEnvironment([](const auto& events) { checkSnapshot(events); })
                        .isOk());
    EXPECT_TRUE(
            mService->getCurrentEnvironmentV1_1([](const auto& events) { checkSnapshot(events); })
                    .isOk());
}

TEST_F(Environment, ControlCallsAnswerWithTheModulesVerdict) {
    for (uint32_t environment = 0; environment < mCount; ++environment) {
        checked(mService->initEnvironment(environment, otherParams(0.0, kLongestName)));
        checked(mService->enableEnvironment(environment, 1, -1, otherParams(0.0, 0)));
        checked(mService->disableEnvironment(environment, 1));
        checked(mService->exitEnvironment(environment, otherParams(0.0, 0)));
    }
}

TEST_F(Environment, NameOf33CharactersIsRefused) {
    const V1_0::OtherParams tooLong = otherParams(0.0, kLongestName + 1);
    EXPECT_EQ(1, checked(mService->initEnvironment(0, tooLong)));
    EXPECT_EQ(1, checked(mService->enableEnvironment(0, 1, 0, tooLong)));
    EXPECT_EQ(1, checked(mService->exitEnvironment(0, tooLong)));
}

TEST_F(Environment, NullCallbackIsIgnored) {
    EXPECT_TRUE(mService->registerEnvironmentCallback(nullptr).isOk());
    EXPECT_TRUE(mService->registerEnvironmentCallbackV1_1(nullptr).isOk());
    EXPECT_LE(checked(mService->disableEnvironment(0, 1)), 1);
}

TEST_F(Environment, EventsReachEveryClientOfBothVersionsWhoeverEnabled) {
    ClientProcess newer, older, asking;
    ASSERT_EQ("0", newer.ask("register environment 1.1"));
    ASSERT_EQ("0", older.ask("register environment 1.0"));
    for (uint32_t environment = 0; environment < mCount; ++environment) {
        asking.ask("init " + std::to_string(environment));
        asking.ask("env-enable " + std::to_string(environment) + " 1 0");
    }
    const bool came = newer.waitForEvents("onEnvironmentChangedV1_1", 1, eventTimeoutMs());
    if (!came && !gOptions.simulator) GTEST_SKIP() << "no environment event came";
    ASSERT_TRUE(came);
    const ClientProcess::Event first = newer.events("onEnvironmentChangedV1_1").front();
    EXPECT_TRUE(older.waitUntil(
            [&] {
                for (const auto& event : older.events("onEnvironmentChanged")) {
                    if (event.timestamp == first.timestamp && event.value == first.value) {
                        return true;
                    }
                }
                return false;
            },
            eventTimeoutMs()));
    EXPECT_TRUE(older.events("onEnvironmentChangedV1_1").empty());
    EXPECT_TRUE(newer.events("onEnvironmentChanged").empty());
    for (uint32_t environment = 0; environment < mCount; ++environment) {
        asking.ask("env-disable " + std::to_string(environment) + " 1");
        asking.ask("exit " + std::to_string(environment));
    }
}
