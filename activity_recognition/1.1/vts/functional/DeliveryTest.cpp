// SPDX-License-Identifier: Apache-2.0
// Who gets which events. These tests need a module that reports something by itself.
#include <gtest/gtest.h>

#include <set>

#include "ClientProcess.h"
#include "Target.h"

namespace {

constexpr char kPlainV1_0[] = "onActivityChanged";
constexpr char kPlainV1_1[] = "onActivityChangedV1_1";
constexpr char kExtendedV1_0[] = "onActivityExtendChanged";
constexpr char kExtendedV1_1[] = "onActivityExtendChangedV1_1";

class Delivery : public ::testing::Test {
  protected:
    // Finds a pair that events come for, with a client that asks for everything.
    void SetUp() override {
        ASSERT_NE(nullptr, activities().get());
        ClientProcess scout({"register activity 1.1"});
        for (const Pair& pair : acceptedPairs(256)) {
            ASSERT_EQ("0", scout.ask("extend " + pair.text() + " 1000000000"));
            mAll.push_back(pair);
        }
        const auto came = scout.events(kPlainV1_1, mAll.empty() ? 0 : 1);
        for (const Pair& pair : mAll) EXPECT_EQ("0", scout.ask("disable " + pair.text()));
        if (came.empty() && !gOptions.simulator) GTEST_SKIP() << "no event came";
        ASSERT_FALSE(came.empty()) << "no event came";
        mPair = {came[0].id, came[0].eventType};
        mOther = {came[0].id, 3 - came[0].eventType};
        mEnable = "enable " + mPair.text() + " 1000000000";
    }

    std::vector<Pair> mAll;
    Pair mPair{};   // events come for this one
    Pair mOther{};  // the same activity, the other event type
    std::string mEnable;
};

}  // namespace

TEST_F(Delivery, PlainEventsReachAllWhoAskedAndNobodyElse) {
    ClientProcess silent({"register activity 1.1"}), elsewhere({"register activity 1.1"});
    ClientProcess first({"register activity 1.1", mEnable}),
            second({"register activity 1.1", mEnable});
    elsewhere.ask("enable " + mOther.text() + " 1000000000");
    const auto events = second.events(kPlainV1_1, 3);
    ASSERT_LE(3u, events.size());
    for (const auto& event : events) {
        EXPECT_EQ(mPair.text(), (Pair{event.id, event.eventType}.text()));
        EXPECT_TRUE(first.gets(kPlainV1_1, event.timestamp));
    }
    // Answers come after what was delivered before them.
    elsewhere.ask("disable " + mOther.text());
    silent.ask("flush");
    for (const auto& event : elsewhere.events(kPlainV1_1)) {
        EXPECT_EQ(mOther.eventType, event.eventType);
    }
    EXPECT_TRUE(silent.events(kPlainV1_1).empty());
}

TEST_F(Delivery, Version10ClientsSeeWhatIsRoutedToOthers) {
    ClientProcess older({"register activity 1.0"});
    ClientProcess both({"register activity 1.0", "register activity 1.1", mEnable});
    ClientProcess newer({"register activity 1.1", mEnable});
    for (ClientProcess* client : {&older, &both})
        EXPECT_FALSE(client->events(kPlainV1_0, 1).empty());
    for (ClientProcess* client : {&newer, &both})
        EXPECT_FALSE(client->events(kPlainV1_1, 1).empty());
    EXPECT_TRUE(older.events(kPlainV1_1).empty());
    EXPECT_TRUE(newer.events(kPlainV1_0).empty());
}

TEST_F(Delivery, SecondVersion11CallbackTakesOverTheRequests) {
    ClientProcess client({"register activity 1.1", mEnable, "register activity 1.1"});
    const size_t before = client.events(kPlainV1_1).size();
    const auto events = client.events(kPlainV1_1, before + 2);
    EXPECT_LE(before + 2, events.size());
    // One callback in the tables: no event comes twice. (Another module may repeat itself.)
    if (!gOptions.simulator) return;
    std::set<int64_t> seen;
    for (const auto& event : events) EXPECT_TRUE(seen.insert(event.timestamp).second);
}

TEST_F(Delivery, ExtendedEventsReachEveryClientWhateverItEnabled) {
    ClientProcess asking, older({"register activity 1.0"}), newer({"register activity 1.1"});
    for (const Pair& pair : mAll) {
        ASSERT_EQ("0", asking.ask("extend " + pair.text() + " 1000000000"));
    }
    const auto came = newer.events(kExtendedV1_1, 1);
    for (const auto& event : came) EXPECT_TRUE(older.gets(kExtendedV1_0, event.timestamp));
    for (const Pair& pair : mAll) EXPECT_EQ("0", asking.ask("disable " + pair.text()));
    if (came.empty() && !gOptions.simulator) GTEST_SKIP() << "no extended event came";
    EXPECT_FALSE(came.empty());
}
