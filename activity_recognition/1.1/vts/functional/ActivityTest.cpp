// What one client can ask for and what it is answered, without any event.
#include <gtest/gtest.h>

#include "Target.h"

using ::android::sp;

namespace {

constexpr int64_t kSecondNs = 1000000000;
const uint32_t kNoEventTypes[] = {0, 3, 0xffffffff};

class Activity : public ::testing::Test {
  protected:
    void SetUp() override {
        mService = activities();
        ASSERT_NE(nullptr, mService.get());
    }

    int32_t enable(const Pair& pair, int64_t latencyNs) {
        return checked(mService->enableActivityEvent(pair.activity, pair.eventType, latencyNs));
    }
    int32_t extend(const Pair& pair, int64_t latencyNs, const V1_0::OtherParams& params) {
        return checked(mService->enableActivityEventExtend(pair.activity, pair.eventType, latencyNs,
                                                           params));
    }
    int32_t disable(const Pair& pair) {
        return checked(mService->disableActivityEvent(pair.activity, pair.eventType));
    }

    sp<V1_1::IActivityInterface> mService;
};

}  // namespace

TEST_F(Activity, ListIsTheSameEveryTimeAndHasNoEmptyNames) {
    std::vector<std::string> lists[2];
    for (auto& list : lists) {
        ASSERT_TRUE(mService->getSupportedActivitiesList([&list](const auto& names) {
                                for (const auto& name : names) list.push_back(name);
                            })
                            .isOk());
    }
    EXPECT_EQ(lists[0], lists[1]);
    for (const std::string& name : lists[0]) EXPECT_FALSE(name.empty());
}

TEST_F(Activity, SnapshotHasAtMostFiveRecordsInEitherVersion) {
    EXPECT_TRUE(
            mService->getCurrentActivity([](const auto& events) { checkSnapshot(events); }).isOk());
    EXPECT_TRUE(mService->getCurrentActivityV1_1([](const auto& events) { checkSnapshot(events); })
                        .isOk());
}

TEST_F(Activity, EventTypesOtherThanOneAndTwoAreRefused) {
    for (uint32_t eventType : kNoEventTypes) {
        SCOPED_TRACE(eventType);
        EXPECT_EQ(1, enable({0, eventType}, kSecondNs));
        EXPECT_EQ(1, extend({0, eventType}, kSecondNs, otherParams(1.0, 0)));
        EXPECT_EQ(1, disable({0, eventType}));
    }
}

TEST_F(Activity, RequestCanBeWithdrawnOnceHoweverOftenItWasMade) {
    for (const Pair& pair : acceptedPairs(4)) {
        SCOPED_TRACE(::testing::Message() << pair.activity << ":" << pair.eventType);
        EXPECT_EQ(1, disable(pair)) << "nothing was requested yet";
        EXPECT_EQ(0, enable(pair, 5 * kSecondNs));
        EXPECT_EQ(0, enable(pair, 2 * kSecondNs));
        EXPECT_EQ(0, disable(pair));
        EXPECT_EQ(1, disable(pair)) << "it is one request, withdrawn already";
    }
}

TEST_F(Activity, NameOf33CharactersIsRefusedAndLeavesNoRequest) {
    for (const Pair& pair : acceptedPairs(1)) {
        EXPECT_EQ(1, extend(pair, kSecondNs, otherParams(1.0, kLongestName + 1)));
        EXPECT_EQ(1, disable(pair));
        // Whether the module likes a longest name is its own affair; it must be asked and answer.
        if (extend(pair, kSecondNs, otherParams(1.0, kLongestName)) == 0) {
            EXPECT_EQ(0, disable(pair));
        }
    }
}

TEST_F(Activity, RefusedNameLeavesAnEarlierRequestAlone) {
    for (const Pair& pair : acceptedPairs(1)) {
        ASSERT_EQ(0, enable(pair, kSecondNs));
        EXPECT_EQ(1, extend(pair, kSecondNs, otherParams(0.0, kLongestName + 1)));
        EXPECT_EQ(0, disable(pair));
    }
}

TEST_F(Activity, FlushAnswers) {
    checked(mService->flush());
}

TEST_F(Activity, NullCallbackIsIgnored) {
    EXPECT_TRUE(mService->registerActivityCallback(nullptr).isOk());
    EXPECT_TRUE(mService->registerActivityCallbackV1_1(nullptr).isOk());
    checked(mService->flush());
}
