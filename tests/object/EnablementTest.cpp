// Enable, disable, flush and barriers: what the module is told, and what stands in the tables.
#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

constexpr int64_t kSecond = 1000000000;
const std::string kSevenDays = "604800000000000";
const OtherParams kNoWake = Params({1, 0, 0, 0}, "quiet");
const OtherParams kLoud = Params({2, 0, 0, 0}, "loud");

struct EnablementTest : ObjectTest {
    static Lines barriers() { return Texts(Act::barriers()); }
    static Lines requests() { return Texts(Act::requests()); }
    Lines natives() { return Texts(Act::natives(*act)); }
};

TEST_F(EnablementTest, JoinersMergeAndTakeABarrier) {
    module.current = {Context(1, 9, 300), Context(1, 9, 100), Context(1, 9, 200)};
    EXPECT_EQ(enable(70, 1, 1, 5 * kSecond), 0);
    EXPECT_EQ(barriers(), Lines{});
    EXPECT_EQ(enable(71, 1, 1, 2500000000), 0);
    EXPECT_EQ(module.take(), (Lines{"enable 1 1 5000000000", "enable 1 1 2000000000"}));
    EXPECT_EQ(barriers(), Lines{"71 1 1 200"});
    EXPECT_EQ(natives(), Lines{"70 1 1 5000000000 0"});
    // A version 1.1 client joins with its own parameters; the merge is told again though nothing
    // changed, and rises when the fastest asks for more.
    EXPECT_EQ(enableExtended(72, 1, 1, 3 * kSecond, kLoud), 0);
    EXPECT_EQ(enable(71, 1, 1, 9 * kSecond), 0);
    EXPECT_EQ(module.take(),
              (Lines{"extend 1 1 2000000000 [2 0 0 0 'loud']", "enable 1 1 3000000000"}));
    EXPECT_EQ(requests(), (Lines{"70 1 1 5000000000", "72 1 1 3000000000", "71 1 1 9000000000"}));
    TakeLog();
    enable(70, 2, 2, 7);
    EXPECT_EQ(barriers(), (Lines{"72 1 1 200", "71 1 1 200"}));
    enableExtended(70, 2, 2, 7, kLoud);  // its creator joins like any other
    EXPECT_EQ(barriers(), (Lines{"72 1 1 200", "71 1 1 200", "70 2 2 200"}));
    EXPECT_EQ(TakeLog(),
              (Lines{"I AR_impl: enableActivityEvent activity[2], event[2] reportLatency[7]ns",
                     "I AR_impl: enableActivityEvent end, pid[70]",
                     "I AR_impl: enableActivityEventExtend activity[2], event[2] "
                     "report_latency[7]ns",
                     "I AR_impl: enableActivityEventExtend end, pid[70]"}));
}

TEST_F(EnablementTest, ABarrierHoldsFromItsMomentOn) {
    add<ActClient1>(70, "c");
    enable(70, 1, 1, 0);
    module.current = {Context(1, 1, 100)};
    // Its joiner's thread delivers before the barrier is taken, and after.
    module.inside = [this] { plain({{1, 1, 5, 0, {}}}); };
    enable(71, 1, 1, 0);
    EXPECT_EQ(TakeJournal().size(), 2u);
    As joiner(71);
    plain({{1, 1, 99, 0, {}}, {1, 1, 100, 0, {}}});
    EXPECT_EQ(TakeJournal(), Lines{"c plain (1,1,100,0)"});
}

TEST_F(EnablementTest, WhatRemainsDecidesTheReEnable) {
    const OtherParams late = Params({1, 0, 0, 0}, "late");
    const struct {
        std::vector<const OtherParams*> remaining;  // NULL: version 1.0; of 3 s, 4 s and so on
        std::string told;
    } cases[] = {
            {{nullptr}, "enable 1 1 3000000000"},
            {{&kLoud, nullptr, &kNoWake}, "enable 1 1 3000000000"},
            {{&kLoud, &kLoud}, "extend 1 1 3000000000 [0 0 0 0 '']"},
            {{&kNoWake, &kLoud}, "extend 1 1 4000000000 [1 0 0 0 'quiet']"},
            {{&kNoWake, &late}, "extend 1 1 " + kSevenDays + " [1 0 0 0 'late']"},
    };
    for (const auto& c : cases) {
        make();
        enableExtended(70, 1, 1, kSecond, kLoud);
        for (size_t i = 0; i < c.remaining.size(); ++i) {
            const int64_t latencyNs = (3 + i) * kSecond;
            if (c.remaining[i] == nullptr) {
                enable(71 + i, 1, 1, latencyNs);
            } else {
                enableExtended(71 + i, 1, 1, latencyNs, *c.remaining[i]);
            }
        }
        enable(70, 2, 1, 0);  // other pairs have no say
        enable(70, 1, 2, 0);
        module.take();
        EXPECT_EQ(disable(70, 1, 1), 0);
        EXPECT_EQ(module.take(), Lines{c.told});
    }
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
