// SPDX-License-Identifier: Apache-2.0
// The environment side: nothing is kept per client, the module decides.
#include <gtest/gtest.h>

#include "ClientProcess.h"
#include "Target.h"

using ::android::sp;

namespace {

class Environment : public ::testing::Test {
  protected:
    void SetUp() override {
        if (mService == nullptr) GTEST_SKIP() << "the module has no environments";
        const auto list =
                listOf(mService, &V1_1::IEnvironmentInterface::getSupportedEnvironmentsList);
        for (const std::string& name : list) EXPECT_FALSE(name.empty());
        EXPECT_TRUE(mService->getCurrentEnvironment(CheckSnapshot()).isOk());
        EXPECT_TRUE(mService->getCurrentEnvironmentV1_1(CheckSnapshot()).isOk());
        mCount = static_cast<uint32_t>(list.size());
    }

    const sp<V1_1::IEnvironmentInterface> mService = environments();
    uint32_t mCount = 0;
};

}  // namespace

TEST_F(Environment, RefusesLongNamesAndIgnoresNullCallbacks) {
    const V1_0::OtherParams tooLong = otherParams(0.0, kLongestName + 1);
    EXPECT_EQ(1, checked(mService->initEnvironment(0, tooLong)));
    EXPECT_EQ(1, checked(mService->enableEnvironment(0, 1, 0, tooLong)));
    EXPECT_EQ(1, checked(mService->exitEnvironment(0, tooLong)));
    EXPECT_TRUE(mService->registerEnvironmentCallback(nullptr).isOk());
    EXPECT_TRUE(mService->registerEnvironmentCallbackV1_1(nullptr).isOk());
    checked(mService->disableEnvironment(0, 1));
}

// This process has no callback, and enables all the same.
TEST_F(Environment, EventsReachEveryClientOfBothVersionsWhoeverEnabled) {
    ClientProcess older({"register environment 1.0"}), newer({"register environment 1.1"});
    for (uint32_t environment = 0; environment < mCount; ++environment) {
        checked(mService->initEnvironment(environment, otherParams(0.0, kLongestName)));
        checked(mService->enableEnvironment(environment, 1, -1, otherParams(0.0, 0)));
    }
    const auto came = newer.events("onEnvironmentChangedV1_1", 1);
    for (const auto& event : came) EXPECT_TRUE(older.gets("onEnvironmentChanged", event.timestamp));
    EXPECT_TRUE(older.events("onEnvironmentChangedV1_1").empty());
    EXPECT_TRUE(newer.events("onEnvironmentChanged").empty());
    for (uint32_t environment = 0; environment < mCount; ++environment) {
        checked(mService->disableEnvironment(environment, 1));
        checked(mService->exitEnvironment(environment, otherParams(0.0, 0)));
    }
    if (came.empty() && !gOptions.simulator) GTEST_SKIP() << "no environment event came";
    EXPECT_FALSE(came.empty());
}
