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

TEST_F(EnablementTest, BarriersFollowTheSnapshot) {
    const auto afterJoiningAt = [this](int count) {
        module.countOverride = count;
        enable(71, 1, 1, 0);
        return barriers();
    };
    for (int i = 1; i <= 7; ++i) module.current.push_back(Context(1, 1, 10 * i));
    enable(70, 1, 1, 0);
    EXPECT_EQ(afterJoiningAt(0), Lines{});             // nothing current: none is made
    EXPECT_EQ(afterJoiningAt(2), Lines{"71 1 1 20"});  // the last, not the greatest
    EXPECT_EQ(afterJoiningAt(0), Lines{"71 1 1 20"});  // and none is replaced
    EXPECT_EQ(afterJoiningAt(7), Lines{"71 1 1 70"});  // not capped
    EXPECT_EQ(afterJoiningAt(-3), Lines{"71 1 1 0"});  // a negative count
    EXPECT_EQ(afterJoiningAt(1), Lines{"71 1 1 10"});  // one record for the triple
    module.nullArrays = true;
    EXPECT_EQ(afterJoiningAt(3), Lines{"71 1 1 10"});  // as good as no snapshot
    disable(71, 1, 1);
    EXPECT_EQ(barriers(), Lines{});
}

TEST_F(EnablementTest, NoWakeReplacesTheLatency) {
    EXPECT_EQ(enableExtended(70, 1, 1, 3 * kSecond, kNoWake), 0);
    EXPECT_EQ(module.take(), Lines{"extend 1 1 " + kSevenDays + " [1 0 0 0 'quiet']"});
    EXPECT_EQ(natives(), Lines{"70 1 1 " + kSevenDays + " 1"});
    EXPECT_EQ(requests(), Lines{"70 1 1 " + kSevenDays});
    EXPECT_STREQ(Act::requests()[0].otherParams.name, "quiet");
}

TEST_F(EnablementTest, RefusedRequestsChangeNothing) {
    const OtherParams tooLong = Params({0, 0, 0, 0}, std::string(33, 'n'));
    for (uint32_t event : {0u, 3u, ~0u}) {
        EXPECT_EQ(enable(70, 1, event, 0), 1);
        EXPECT_EQ(enableExtended(70, 1, event, 0, kLoud), 1);
        EXPECT_EQ(disable(70, 1, event), 1);
    }
    EXPECT_EQ(enableExtended(70, 1, 1, 0, tooLong), 1);
    EXPECT_EQ(enableExtended(-1, 1, 1, 0, kLoud), 1);
    EXPECT_EQ(disable(70, 1, 1), 1);
    EXPECT_EQ(TakeLog().size(), 12u);  // a first line each, no closing one
    EXPECT_EQ(requests(), Lines{});
    EXPECT_EQ(module.take(), Lines{});
    // Process -1 is refused in the extended form alone; its key is sign-extended.
    EXPECT_EQ(enable(-1, 1, 1, 0), 0);
    EXPECT_EQ(requests(), Lines{"18446744073709551615 1 1 1000000000"});
    EXPECT_EQ(disable(-1, 1, 1), 0);
    module.take();
    // Exactly 32 characters pass, without a terminator in the field.
    EXPECT_EQ(enableExtended(70, 1, 1, 0, Params({0, 0, 0, 0}, std::string(32, 'n'))), 0);
    EXPECT_EQ(module.take(),
              Lines{"extend 1 1 1000000000 [0 0 0 0 '" + std::string(32, 'n') + "']"});
}

TEST_F(EnablementTest, ARefusalTakesTheClientsRequestAway) {
    for (bool joins : {false, true}) {
        for (int code : {1, -1, 77}) {
            make();
            module.current = {Context(1, 1, 5)};  // a barrier would be there to take
            if (joins) enable(70, 1, 1, 0);
            enable(71, 2, 1, 0);
            module.results = {{"enable", code}, {"extend", code}};
            EXPECT_EQ(enable(70, 1, 1, 5 * kSecond), 1);
            EXPECT_EQ(enableExtended(70, 1, 1, 5 * kSecond, kLoud), 1);
            EXPECT_EQ(requests(), Lines{"71 2 1 1000000000"});
            EXPECT_EQ(natives().size(), joins ? 2u : 1u);
            EXPECT_EQ(barriers(), Lines{});
        }
    }
    EXPECT_EQ(TakeLog().back(), "I AR_impl: enableActivityEventExtend end, pid[70]");
}

TEST_F(EnablementTest, ProcessZeroIsNoCreator) {
    module.current = {Context(1, 1, 5)};
    {
        WithoutThreadState none;
        EXPECT_EQ(act->enableActivityEvent(1, 1, 0), 0);
    }
    EXPECT_EQ(natives(), Lines{"0 1 1 1000000000 0"});
    // No merge, no barrier, a second record. Version 1.0 joins all the same.
    EXPECT_EQ(enableExtended(71, 1, 1, 4 * kSecond, kLoud), 0);
    EXPECT_EQ(enable(72, 1, 1, 9 * kSecond), 0);
    EXPECT_EQ(module.take(),
              (Lines{"enable 1 1 1000000000", "extend 1 1 4000000000 [2 0 0 0 'loud']",
                     "enable 1 1 1000000000"}));
    EXPECT_EQ(natives(), (Lines{"0 1 1 1000000000 0", "71 1 1 4000000000 0"}));
    EXPECT_EQ(barriers(), Lines{"72 1 1 5"});
}

TEST_F(EnablementTest, WithoutATable) {
    make(nullptr, nullptr);
    EXPECT_EQ(enable(70, 1, 1, 0), 1);
    EXPECT_EQ(enableExtended(70, 1, 1, 0, kLoud), 1);
    Act::natives(*act).push_back({70, 1, 1, 0, 0});
    EXPECT_EQ(enable(70, 1, 1, 0), 1);
    EXPECT_EQ(enableExtended(70, 1, 1, 0, kLoud), 1);
    EXPECT_EQ(int32_t(act->flush()), 1);
    const Lines log = TakeLog();  // each error between a call's first and last line
    const std::string missing = ": mImpl interface is not available";
    EXPECT_EQ((Lines{log[1], log[4], log[7], log[10], log[12]}),
              (Lines{"E AR_impl: UpdateEnableNative" + missing,
                     "I AR_impl: EnableActivityEvent" + missing,
                     "E AR_impl: enableActivityEvent" + missing,
                     "I AR_impl: EnableActivityEvent" + missing, "E AR_impl: flush" + missing}));
    // The last one out succeeds, though nobody was told; a re-merge fails, plain or extended.
    for (const OtherParams& left : {Params({0, 0, 0, 0}), kLoud}) {
        Act::requests().clear();
        for (uint64_t pid : {70, 71}) {
            Act::requests().push_back({pid, 1, 1, kSecond, {{left.params[0]}, {}}});
        }
        EXPECT_EQ(disable(70, 1, 1), 1);
    }
    EXPECT_EQ(disable(71, 1, 1), 0);
    EXPECT_EQ(natives(), Lines{});
    EXPECT_EQ(requests(), Lines{});
}

TEST_F(EnablementTest, LeavingMergesUpwardsThenDisables) {
    enable(70, 1, 1, 5 * kSecond);
    enable(71, 1, 1, 2 * kSecond);
    enable(71, 1, 2, kSecond);
    enable(71, 2, 2, kSecond);
    plain({{1, 1, 10, 0, {}}});
    EXPECT_EQ(disable(71, 1, 2), 0);  // not what the client was sent last
    EXPECT_EQ(Texts(Act::lastEvents()), (Lines{"70 1 1 10", "71 1 1 10"}));
    module.take();
    TakeLog();
    EXPECT_EQ(disable(71, 1, 1), 0);
    EXPECT_EQ(TakeLog(), Lines{"I AR_impl: disableActivityEvent acivity[1] event[1]"});
    EXPECT_EQ(Texts(Act::lastEvents()), Lines{"70 1 1 10"});
    EXPECT_EQ(disable(70, 1, 1), 0);
    EXPECT_EQ(module.take(), (Lines{"enable 1 1 5000000000", "disable 1 1"}));
    EXPECT_EQ(natives(), Lines{"71 2 2 1000000000 0"});
    EXPECT_EQ(requests(), Lines{"71 2 2 1000000000"});
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

TEST_F(EnablementTest, LeavingWithoutANativeRecord) {
    enable(70, 1, 1, 0);
    enable(71, 1, 1, 0);
    Act::natives(*act).clear();
    module.take();
    EXPECT_EQ(disable(70, 1, 1), 1);  // with others left: the module isn't told
    EXPECT_EQ(module.take(), Lines{});
    EXPECT_EQ(disable(71, 1, 1), 0);
    EXPECT_EQ(module.take(), Lines{"disable 1 1"});
    // The record of another pair goes instead.
    enable(70, 2, 1, 0);
    enable(70, 1, 1, 0);
    Act::natives(*act).pop_back();
    EXPECT_EQ(disable(70, 1, 1), 0);
    EXPECT_EQ(natives(), Lines{});
}

TEST_F(EnablementTest, ARefusedDisableStaysDone) {
    module.results = {{"disable", -22}};
    enable(70, 1, 1, 0);
    EXPECT_EQ(disable(70, 1, 1), 1);
    EXPECT_EQ(requests(), Lines{});
    EXPECT_EQ(natives(), Lines{});
    module.results = {{"flush", 3}};
    EXPECT_EQ(int32_t(act->flush()), 1);
    module.results = {};
    EXPECT_EQ(int32_t(act->flush()), 0);
}

TEST_F(EnablementTest, TheModuleCallsBackFromInsideItsSlots) {
    add<ActClient1>(70, "c");
    module.inside = [this] {
        plain({{1, 1, 10, 0, {}}});
        extended({Context(1, 1, 11)});
    };
    enable(70, 1, 1, 0);
    enableExtended(70, 1, 1, 0, kLoud);
    ASSERT_EQ(int32_t(act->flush()), 0);
    EXPECT_EQ(disable(70, 1, 1), 0);
    const std::string both[] = {"c plain (1,1,10,0)", "c extended (1,1,11,0,0,)"};
    // In both enables, the second one's snapshot and the flush; a request is visible while its call
    // is in flight, and gone when the disable's call runs.
    EXPECT_EQ(TakeJournal(), (Lines{both[0], both[1], both[0], both[1], both[0], both[1], both[0],
                                    both[1], both[1]}));
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
