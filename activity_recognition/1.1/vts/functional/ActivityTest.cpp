// SPDX-License-Identifier: Apache-2.0
// What one client can ask for and what it is answered, without any event.
#include <gtest/gtest.h>

#include "Target.h"

using ::android::sp;

namespace {

class Activity : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(nullptr, mService.get()); }

    int32_t enable(const Pair& pair) {
        return checked(mService->enableActivityEvent(pair.activity, pair.eventType, kSecondNs));
    }
    int32_t extend(const Pair& pair, size_t nameLength) {
        return checked(mService->enableActivityEventExtend(pair.activity, pair.eventType, kSecondNs,
                                                           otherParams(1.0, nameLength)));
    }
    int32_t disable(const Pair& pair) {
        return checked(mService->disableActivityEvent(pair.activity, pair.eventType));
    }

    const sp<V1_1::IActivityInterface> mService = activities();
};

}  // namespace

TEST_F(Activity, QuestionsAreAnsweredWithinTheirBounds) {
    const auto list = listOf(mService, &V1_1::IActivityInterface::getSupportedActivitiesList);
    EXPECT_EQ(list, listOf(mService, &V1_1::IActivityInterface::getSupportedActivitiesList));
    for (const std::string& name : list) EXPECT_FALSE(name.empty());
    EXPECT_TRUE(mService->getCurrentActivity(CheckSnapshot()).isOk());
    EXPECT_TRUE(mService->getCurrentActivityV1_1(CheckSnapshot()).isOk());
}

TEST_F(Activity, EventTypesOtherThanOneAndTwoAreRefused) {
    for (const uint32_t eventType : {0u, 3u, 0xffffffffu}) {
        SCOPED_TRACE(eventType);
        EXPECT_EQ(1, enable({0, eventType}));
        EXPECT_EQ(1, extend({0, eventType}, 0));
        EXPECT_EQ(1, disable({0, eventType}));
    }
}

TEST_F(Activity, RequestCanBeWithdrawnOnceHoweverOftenItWasMade) {
    for (const Pair& pair : acceptedPairs(4)) {
        SCOPED_TRACE(pair.text());
        EXPECT_EQ(1, disable(pair)) << "nothing was requested yet";
        EXPECT_EQ(0, enable(pair));
        EXPECT_EQ(0, enable(pair));
        EXPECT_EQ(0, disable(pair));
        EXPECT_EQ(1, disable(pair)) << "it is one request, withdrawn already";
    }
}

TEST_F(Activity, NameOf33CharactersIsRefusedAndChangesNothing) {
    for (const Pair& pair : acceptedPairs(1)) {
        EXPECT_EQ(1, extend(pair, kLongestName + 1));
        EXPECT_EQ(1, disable(pair)) << "the refused one made a request";
        ASSERT_EQ(0, enable(pair));
        EXPECT_EQ(1, extend(pair, kLongestName + 1));
        EXPECT_EQ(0, disable(pair)) << "the refused one took the earlier request";
        // Whether the module likes a longest name is its own affair; it must be asked and answer.
        const int32_t verdict = extend(pair, kLongestName);
        EXPECT_EQ(verdict, disable(pair));
    }
}

TEST_F(Activity, NullCallbackIsIgnored) {
    EXPECT_TRUE(mService->registerActivityCallback(nullptr).isOk());
    EXPECT_TRUE(mService->registerActivityCallbackV1_1(nullptr).isOk());
    checked(mService->flush());
}
