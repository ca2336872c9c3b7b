// SPDX-License-Identifier: Apache-2.0
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
        mPair = pairs[0].text();
    }

    std::string mPair;
};

}  // namespace

TEST_F(Sharing, RequestsBelongToTheProcessThatMadeThem) {
    ClientProcess a({"extend " + mPair + " 5000000000"}), b;
    EXPECT_EQ("1", b.ask("disable " + mPair)) << "withdrew another process's request";
    ASSERT_EQ("0", b.ask("enable " + mPair + " 2000000000"));
    EXPECT_EQ("0", b.ask("disable " + mPair)) << "the module takes what is left, an extended one";
    EXPECT_EQ("1", b.ask("disable " + mPair));
    EXPECT_EQ("0", a.ask("disable " + mPair)) << "the other process's leaving took this request";
}

TEST_F(Sharing, ManyProcessesComeAndGoAtOnce) {
    ClientProcess clients[6];
    for (ClientProcess& client : clients) ASSERT_EQ("0", client.ask("register activity 1.1"));
    for (int i = 0; i < 40; ++i) {
        for (ClientProcess& client : clients) {
            client.send("enable " + mPair + " " + std::to_string((1 + i % 5) * kSecondNs));
            client.send("disable " + mPair);
        }
        // Killed with all that it holds.
        if (i % 10 == 0) {
            ClientProcess(
                    {"register activity 1.0", "register activity 1.1", "enable " + mPair + " 0"});
        }
    }
    for (ClientProcess& client : clients) {
        for (int i = 0; i < 40; ++i) {
            ASSERT_EQ("0", client.answer()) << "of enable " << i;
            // Enabling and disabling are not one step each. A disable that meets another process's
            // enable half way finds nothing enabled natively and answers 1; its request is gone.
            const std::string disabled = client.answer();
            ASSERT_TRUE(disabled == "0" || disabled == "1") << disabled << ", of disable " << i;
        }
        EXPECT_EQ("1", client.ask("disable " + mPair)) << "a request was not withdrawn";
    }
}
