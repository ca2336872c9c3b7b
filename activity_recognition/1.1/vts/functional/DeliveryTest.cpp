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

std::string textOf(const Pair& pair) {
    return std::to_string(pair.activity) + " " + std::to_string(pair.eventType);
}

class Delivery : public ::testing::Test {
  protected:
    // Finds a pair that events come for, with a client that asks for everything.
    void SetUp() override {
        ASSERT_NE(nullptr, activities().get());
        ClientProcess scout;
        ASSERT_EQ("0", scout.ask("register activity 1.1"));
        for (const Pair& pair : acceptedPairs(256)) {
            ASSERT_EQ("0", scout.ask("extend " + textOf(pair) + " 1000000000 0"));
            mAll.push_back(pair);
        }
        const bool came = !mAll.empty() && scout.waitForEvents(kPlainV1_1, 1, eventTimeoutMs());
        if (came) {
            const ClientProcess::Event event = scout.events(kPlainV1_1).front();
            mPair = {event.id, event.eventType};
            mOther = {event.id, 3 - event.eventType};
        }
        for (const Pair& pair : mAll) EXPECT_EQ("0", scout.ask("disable " + textOf(pair)));
        if (!came && !gOptions.simulator) GTEST_SKIP() << "no event came";
        ASSERT_TRUE(came) << "no event came";
    }

    std::vector<Pair> mAll;
    Pair mPair{};   // events come for this one
    Pair mOther{};  // the same activity, the other event type
};

}  // namespace

TEST_F(Delivery, PlainEventsReachThoseWhoAskedAndNobodyElse) {
    ClientProcess asking, elsewhere, silent;
    for (ClientProcess* client : {&asking, &elsewhere, &silent}) {
        ASSERT_EQ("0", client->ask("register activity 1.1"));
    }
    ASSERT_EQ("0", asking.ask("enable " + textOf(mPair) + " 1000000000"));
    elsewhere.ask("enable " + textOf(mOther) + " 1000000000");
    ASSERT_TRUE(asking.waitForEvents(kPlainV1_1, 3, eventTimeoutMs()));
    // Answers come after what was delivered before them.
    EXPECT_EQ("0", asking.ask("disable " + textOf(mPair)));
    elsewhere.ask("disable " + textOf(mOther));
    silent.ask("flush");

    for (const auto& event : asking.events(kPlainV1_1)) {
        EXPECT_EQ(mPair.activity, event.id);
        EXPECT_EQ(mPair.eventType, event.eventType);
    }
    for (const auto& event : elsewhere.events(kPlainV1_1)) {
        EXPECT_EQ(mOther.eventType, event.eventType);
    }
    EXPECT_TRUE(silent.events(kPlainV1_1).empty());
}

TEST_F(Delivery, TwoClientsOfAPairGetTheSameEvents) {
    ClientProcess a, b;
    for (ClientProcess* client : {&a, &b}) {
        ASSERT_EQ("0", client->ask("register activity 1.1"));
        ASSERT_EQ("0", client->ask("enable " + textOf(mPair) + " 1000000000"));
    }
    ASSERT_TRUE(b.waitForEvents(kPlainV1_1, 3, eventTimeoutMs()));
    const auto wanted = b.events(kPlainV1_1);
    EXPECT_TRUE(a.waitUntil(
            [&] {
                std::set<int64_t> times;
                for (const auto& event : a.events(kPlainV1_1)) times.insert(event.timestamp);
                for (const auto& event : wanted) {
                    if (times.count(event.timestamp) == 0) return false;
                }
                return true;
            },
            eventTimeoutMs()));
}

TEST_F(Delivery, Version10ClientsSeeWhatIsRoutedToOthers) {
    ClientProcess older, asking;
    ASSERT_EQ("0", older.ask("register activity 1.0"));
    ASSERT_EQ("0", asking.ask("register activity 1.1"));
    ASSERT_EQ("0", asking.ask("enable " + textOf(mPair) + " 1000000000"));
    EXPECT_TRUE(older.waitForEvents(kPlainV1_0, 1, eventTimeoutMs()));
    EXPECT_TRUE(older.events(kPlainV1_1).empty());
    EXPECT_TRUE(asking.events(kPlainV1_0).empty());
}

TEST_F(Delivery, ProcessRegisteredInBothVersionsGetsEventsInBoth) {
    ClientProcess both;
    ASSERT_EQ("0", both.ask("register activity 1.0"));
    ASSERT_EQ("0", both.ask("register activity 1.1"));
    ASSERT_EQ("0", both.ask("enable " + textOf(mPair) + " 1000000000"));
    EXPECT_TRUE(both.waitForEvents(kPlainV1_1, 1, eventTimeoutMs()));
    EXPECT_TRUE(both.waitForEvents(kPlainV1_0, 1, eventTimeoutMs()));
}

TEST_F(Delivery, SecondVersion11CallbackTakesOverTheRequests) {
    ClientProcess client;
    ASSERT_EQ("0", client.ask("register activity 1.1"));
    ASSERT_EQ("0", client.ask("enable " + textOf(mPair) + " 1000000000"));
    ASSERT_EQ("0", client.ask("register activity 1.1"));
    const size_t before = client.events(kPlainV1_1).size();
    EXPECT_TRUE(client.waitForEvents(kPlainV1_1, before + 2, eventTimeoutMs()));
    // One callback in the tables: no event comes twice. (Another module may repeat itself.)
    if (!gOptions.simulator) return;
    std::set<std::string> seen;
    for (const auto& event : client.events(kPlainV1_1)) {
        const std::string text = std::to_string(event.timestamp) + " " + event.extra;
        EXPECT_TRUE(seen.insert(text).second) << text;
    }
}

TEST_F(Delivery, ExtendedEventsReachEveryClientWhateverItEnabled) {
    ClientProcess asking, newer, older;
    ASSERT_EQ("0", newer.ask("register activity 1.1"));
    ASSERT_EQ("0", older.ask("register activity 1.0"));
    for (const Pair& pair : mAll) {
        ASSERT_EQ("0", asking.ask("extend " + textOf(pair) + " 1000000000 0"));
    }
    const bool came = newer.waitForEvents(kExtendedV1_1, 1, eventTimeoutMs());
    if (!came && !gOptions.simulator) GTEST_SKIP() << "no extended event came";
    ASSERT_TRUE(came);
    const ClientProcess::Event first = newer.events(kExtendedV1_1).front();
    ASSERT_TRUE(older.waitForEvents(kExtendedV1_0, 1, eventTimeoutMs()));
    const ClientProcess::Event same = older.events(kExtendedV1_0).front();
    EXPECT_EQ(first.timestamp, same.timestamp);
    EXPECT_EQ(first.value, same.value);
    EXPECT_EQ("-", same.extra) << "version 1.0 records have no extra";
    for (const Pair& pair : mAll) EXPECT_EQ("0", asking.ask("disable " + textOf(pair)));
}
