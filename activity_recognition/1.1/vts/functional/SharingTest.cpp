// Several processes share one module.
#include <gtest/gtest.h>

#include "ClientProcess.h"
#include "Target.h"

namespace {

class Sharing : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(nullptr, activities().get());
        const std::vector<Pair> pairs = acceptedPairs(1);
        if (pairs.empty()) GTEST_SKIP() << "the module takes no request for any activity";
        mPair = std::to_string(pairs[0].activity) + " " + std::to_string(pairs[0].eventType);
    }

    std::string mPair;
};

}  // namespace

TEST_F(Sharing, RequestsBelongToTheProcessThatMadeThem) {
    ClientProcess a, b;
    ASSERT_EQ("0", a.ask("enable " + mPair + " 5000000000"));
    EXPECT_EQ("1", b.ask("disable " + mPair)) << "withdrew another process's request";
    ASSERT_EQ("0", b.ask("enable " + mPair + " 2000000000"));
    EXPECT_EQ("0", b.ask("disable " + mPair));
    EXPECT_EQ("1", b.ask("disable " + mPair));
    EXPECT_EQ("0", a.ask("disable " + mPair)) << "the other process's leaving took this request";
}

TEST_F(Sharing, ReEnableAfterLeavingMixesPlainAndExtendedRequests) {
    ClientProcess a, b, c;
    ASSERT_EQ("0", a.ask("extend " + mPair + " 3000000000 1"));
    ASSERT_EQ("0", b.ask("extend " + mPair + " 4000000000 2"));
    ASSERT_EQ("0", c.ask("enable " + mPair + " 2000000000"));
    EXPECT_EQ("0", c.ask("disable " + mPair));
    EXPECT_EQ("0", b.ask("disable " + mPair));
    EXPECT_EQ("0", a.ask("disable " + mPair));
}

TEST_F(Sharing, KilledClientHarmsNobodyAndNewOnesAreServed) {
    ClientProcess staying, dying;
    ASSERT_EQ("0", staying.ask("register activity 1.1"));
    ASSERT_EQ("0", staying.ask("enable " + mPair + " 5000000000"));
    for (const char* side : {"activity", "environment"}) {
        for (const char* version : {"1.0", "1.1"}) {
            const std::string result = dying.ask(std::string("register ") + side + " " + version);
            EXPECT_TRUE(result == "0" || result == "none") << result;
        }
    }
    ASSERT_EQ("0", dying.ask("enable " + mPair + " 1000000000"));
    dying.killHard();

    ClientProcess coming;
    EXPECT_EQ("0", coming.ask("register activity 1.0"));
    EXPECT_EQ("0", coming.ask("enable " + mPair + " 2000000000"));
    EXPECT_EQ("0", staying.ask("enable " + mPair + " 3000000000"));
    EXPECT_EQ("0", coming.ask("disable " + mPair));
    EXPECT_EQ("0", staying.ask("disable " + mPair));
}

TEST_F(Sharing, ManyProcessesEnableAndDisableAtOnce) {
    constexpr int kClients = 6;
    constexpr int kTimes = 40;
    ClientProcess clients[kClients];
    for (ClientProcess& client : clients) {
        ASSERT_EQ("0", client.ask("register activity 1.1"));
    }
    for (ClientProcess& client : clients) client.send("churn " + mPair + " 40");
    for (ClientProcess& client : clients) EXPECT_EQ(std::to_string(2 * kTimes), client.answer());
    for (ClientProcess& client : clients) EXPECT_EQ("1", client.ask("disable " + mPair));
}
