// SPDX-License-Identifier: Apache-2.0
// What the simulator reports, and when.

#include <errno.h>

#include <future>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Harness.h"

namespace {

using testing::ElementsAre;

// The numbers that the scenarios put into `extra`.
std::vector<uint32_t> extrasOf(const Batch& batch) {
    std::vector<uint32_t> extras;
    for (const ar_context_event& event : batch.events) extras.push_back(event.extra);
    return extras;
}

TEST_F(SimulatorTest, HoldsRecordsUpToTheLatencyOfTheirPair) {
    setScenario(
            "wait go\n0 activity still 1 extra=1\n0 activity walking 1 extra=2\n"
            "10 activity walking 1 extra=3\nwait over\n");
    start();
    activity->enable_activity_event(0, 1, kNoWake);
    activity->enable_activity_event(1, 1, 50 * kSecond);
    say("go");
    say("step 39.999999999s");
    const int64_t beginNs = nowNs() - 50 * kSecond + 1;
    say("step 0.000000001");
    const Batch first = next();
    EXPECT_THAT(extrasOf(first), ElementsAre(2, 3));
    EXPECT_EQ(beginNs, first.events[0].timestamp);
    EXPECT_EQ(beginNs + 10 * kSecond, first.events[1].timestamp);
    // A new latency applies to what is held.
    activity->enable_activity_event(0, 1, 200 * kSecond);
    say("step 149.999999999s");
    EXPECT_EQ(beginNs + 200 * kSecond - 1, nowNs());
    say("step 1s");
    EXPECT_THAT(extrasOf(next()), ElementsAre(1));
    EXPECT_EQ(beginNs + 201 * kSecond - 1, nowNs());
    // Without a wait time passes by itself while anything is due.
    say("over");
    say("activity still 1 extra=4");
    EXPECT_THAT(extrasOf(next()), ElementsAre(4));
    EXPECT_EQ(beginNs + 401 * kSecond - 1, nowNs());
}

TEST_F(SimulatorTest, HoldsRecordsOnTheRealClock) {
    set("SPEED", "1");
    setScenario("wait go\n0 activity still 1\n0.01 activity still 1\n");
    start();
    activity->enable_activity_event(0, 1, 50 * kMs);
    say("step 1s");
    say("go");
    const Batch batch = next();
    ASSERT_EQ(2u, batch.events.size());
    EXPECT_GE(batch.arrivedNs, batch.events[0].timestamp + 50 * kMs);
    EXPECT_EQ(10 * kMs, batch.events[1].timestamp - batch.events[0].timestamp);
    EXPECT_THAT(errors, ElementsAre("AR_simulator AR_SIMULATOR_CONTROL: 'step 1s': "
                                    "the clock runs by itself"));
}

TEST_F(SimulatorTest, HoldsVirtualTimeWhileACallbackIsInProgress) {
    setScenario("wait go\n0 activity still 1 inside=flush\nwait more\n60 activity walking 1\n");
    const auto caller = std::this_thread::get_id();
    inCallback = [&] {
        if (std::this_thread::get_id() != caller) return;
        say("more");
        ar_context_event* events = nullptr;
        for (int i = 0; i < 1000; ++i) {
            ASSERT_EQ(2, activity->get_current_activity(&events)) << "a minute has passed";
            std::this_thread::yield();
        }
    };
    start();
    activity->enable_activity_event(1, 1, 0);
    say("go");
    const int64_t beginNs = nowNs();
    activity->flush();
    EXPECT_EQ(0u, next().events.at(0).activity);
    EXPECT_EQ(beginNs + 60 * kSecond, next().events.at(0).timestamp);
}

TEST_F(SimulatorTest, BeginsARoundOfALoopWhenVirtualTimeIsGranted) {
    setScenario("loop 10\n0 activity still 1 extra=1\n4 activity still 1 extra=2\n");
    start();
    const int64_t beginNs = nowNs() - 4 * kSecond;
    activity->enable_activity_event(0, 1, 0);
    say("step 16s");
    for (int64_t offset : {10, 14, 20, 24}) {
        EXPECT_EQ(beginNs + offset * kSecond, next().events.at(0).timestamp);
    }
    EXPECT_EQ(beginNs + 24 * kSecond, nowNs());
}

TEST_F(SimulatorTest, SendsFullBuffersEarlyAndTheRestOnFlush) {
    setScenario("wait go\n0 activity still 1 times=500\n0 activity walking 1 extra=1\nwait over\n");
    start();
    activity->enable_activity_event(0, 1, kNoWake);
    activity->enable_activity_event(1, 1, 0);
    say("go");
    EXPECT_EQ(192u, next().events.size());
    EXPECT_EQ(192u, next().events.size());
    EXPECT_THAT(extrasOf(next()), ElementsAre(1));
    EXPECT_EQ(0, activity->flush());
    EXPECT_EQ(116u, next().events.size());
}

TEST_F(SimulatorTest, FlushLeavesEnvironmentsAndLaterRecords) {
    setScenario(
            "wait go\n0 activity still 1 extra=1\n0 extended still 1 extra=2\n"
            "0 environment home 1 extra=3\n0 environment home 2 extra=4\n"
            "wait more\n0 activity still 1 extra=5\n0 environment home 2 extra=6\nwait over\n");
    start();
    activity->enable_activity_event_extend(0, 1, kNoWake, &params);
    enableEnvironment(0, 1, kNoWake);
    enableEnvironment(0, 2, 0);
    say("go");
    EXPECT_THAT(extrasOf(next()), ElementsAre(4));
    activity->flush();
    EXPECT_THAT(extrasOf(next()), ElementsAre(1));
    EXPECT_THAT(extrasOf(next()), ElementsAre(2));
    say("more");
    EXPECT_THAT(extrasOf(next()), ElementsAre(6));
    activity->flush();
    EXPECT_THAT(extrasOf(next()), ElementsAre(5));
    // The held one comes along when its latency shrinks.
    enableEnvironment(0, 1, 0);
    EXPECT_THAT(extrasOf(next()), ElementsAre(3));
}

TEST_F(SimulatorTest, ReportsOnlyWhatIsEnabled) {
    std::string round =
            "0 activity still 1 extra=1\n0 activity still 2 extra=2\n"
            "0 extended still 1 extra=3\n0 extended walking 1 extra=4\n"
            "0 environment home 1 extra=5\n0 environment office 1 extra=6\n"
            "0 activity driving 2 extra=99\n";
    setScenario("wait a\n" + round + "wait b\n" + round + "wait c\n" + round);
    start();
    activity->enable_activity_event(0, 1, kNoWake);
    activity->enable_activity_event_extend(1, 1, 0, &params);
    // Whatever came before it has been looked at when this one is sent.
    activity->enable_activity_event(4, 2, 0);
    enableEnvironment(1, 1);
    say("a");
    EXPECT_THAT(extrasOf(next()), ElementsAre(99));
    EXPECT_THAT(extrasOf(next()), ElementsAre(4));
    EXPECT_THAT(extrasOf(next()), ElementsAre(6));

    // Disabling drops what is held; exiting disables.
    activity->disable_activity_event(0, 1);
    activity->disable_activity_event(1, 1);
    EXPECT_EQ(0, environment->exit_environment(1, &params));
    EXPECT_EQ(-EPERM, environment->enable_environment(1, 1, 0, &params));
    activity->flush();
    say("b");
    EXPECT_THAT(extrasOf(next()), ElementsAre(99));

    // Extended stays extended through a plain enable.
    activity->enable_activity_event_extend(0, 1, 0, &params);
    activity->enable_activity_event(0, 1, 0);
    say("c");
    EXPECT_THAT(extrasOf(next()), ElementsAre(1, 99));
    EXPECT_THAT(extrasOf(next()), ElementsAre(3));
}

TEST_F(SimulatorTest, AnswersWhileItIsBehind) {
    // A million records at once, of which nobody wants one: seconds of work, some milliseconds at a
    // time.
    std::string text = "wait go\n";
    for (int i = 0; i < 99; ++i) text += "0 activity still 1 times=10000\n";
    setScenario(text + "0 activity walking 1\n");
    start();
    activity->enable_activity_event(1, 1, 0);
    say("go");
    ar_context_event* events = nullptr;
    int count = 0;
    while ((count = activity->get_current_activity(&events)) == 0) std::this_thread::yield();
    EXPECT_EQ(1, count) << "the last record is far away";
    EXPECT_EQ(1u, next().events[0].activity);
}

TEST_F(SimulatorTest, KeepsTheFiveNewestActivitiesCurrent) {
    setScenario(
            "activities a b c d e f\nwait go\n0 activity a 1 extra=1\n"
            "0 extended b 1 extra=2 value=9 data=1,0x2\n0 activity c 1 extra=3\n"
            "0 activity d 2 extra=4\n0 activity e 1 extra=5\n0 activity f 1 extra=6\n"
            "0 activity c 2 extra=7\n0 environment home 1\n");
    start();
    ar_context_event* events = nullptr;
    EXPECT_EQ(0, activity->get_current_activity(&events));
    enableEnvironment(0, 1);
    say("go");
    next();
    ASSERT_EQ(5, activity->get_current_activity(&events));
    EXPECT_THAT(extrasOf({{events, events + 5}, 0}), ElementsAre(2, 4, 5, 6, 7));
    EXPECT_EQ(9u, events[0].value);
    EXPECT_EQ(2u, events[0].context_data[1]);
    EXPECT_EQ(2u, events[4].event_type);
    EXPECT_STREQ("c", events[4].name);
    EXPECT_EQ(1, environment->get_current_environment(&events));
}

TEST_F(SimulatorTest, PlaysLinesOfTheControlAsWell) {
    setScenario("wait go\n0 activity still 1 extra=3\n");
    start();
    activity->enable_activity_event(0, 1, 0);
    say("activity stil 1");
    say("activity still 1 extra=1 times=2 every=0.01");
    say("step soon");
    say("step 0.01s");
    const Batch first = next(), second = next();
    EXPECT_EQ(first.events[0].timestamp + 10 * kMs, second.events[0].timestamp);
    say("answer flush -5");
    say("go");
    EXPECT_THAT(extrasOf(next()), ElementsAre(3));
    EXPECT_EQ(-5, activity->flush());
    const std::string error = "AR_simulator AR_SIMULATOR_CONTROL: ";
    EXPECT_THAT(errors, ElementsAre(error + "'activity stil 1': no activity is named 'stil'",
                                    error + "'step soon': 'step' takes 0 to 1000000 seconds, "
                                            "such as 2s"));
}

TEST_F(SimulatorTest, RefusesToCloseFromInsideACallback) {
    setScenario("wait go\n0 activity still 1\n");
    std::promise<int> closed;
    inCallback = [&] { closed.set_value(close()); };
    start();
    activity->enable_activity_event(0, 1, 0);
    say("go");
    EXPECT_EQ(-EDEADLK, closed.get_future().get());
}

TEST_F(SimulatorTest, TracesCallsAndBatches) {
    setScenario(
            "wait go\n0 extended still 1 extra=1 value=2 data=3,0xffffffffffffffff name=a\"b\\c\n");
    start();
    other_params odd = {{1, 0.5, -1e300, __builtin_nan("")}, {}};
    for (char& c : odd.name) c = '\xe9';
    activity->enable_activity_event_extend(0, 1, 0, &odd);
    EXPECT_EQ(-EINVAL, activity->enable_activity_event(5, 1, kNoWake));
    say("go");
    const Batch batch = next();

    std::vector<nlohmann::json> lines;
    std::ifstream file(trace);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(nlohmann::json::parse(line));
        EXPECT_GT(lines.back()["t"], 0);
        lines.back().erase("t");
        EXPECT_EQ(1u, lines.back().erase("clock"));
    }
    ASSERT_LE(3u, lines.size());
    std::string latin;
    for (int i = 0; i < 32; ++i) latin += "\u00e9";
    const auto expected = nlohmann::json::parse(fmt::format(
            R"([
{{"native": "enable_activity_event_extend", "activity": 0, "event_type": 1, "latency_ns": 0,
  "params": [1, 0.5, -1e300, null], "name": "{}", "result": 0}},
{{"native": "enable_activity_event", "activity": 5, "event_type": 1,
  "latency_ns": 604800000000000, "result": -22}},
{{"native": "activity_extend_changed", "count": 1, "events": [
  {{"event_type": 1, "activity": 0, "timestamp": {}, "extra": 1, "value": 2,
    "context_data": [3, 18446744073709551615, 0, 0], "name": "a\"b\\c"}}]}}])",
            latin, batch.events[0].timestamp));
    EXPECT_EQ(expected, nlohmann::json(std::vector<nlohmann::json>(lines.end() - 3, lines.end())));
}

}  // namespace
