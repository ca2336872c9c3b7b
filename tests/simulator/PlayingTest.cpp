// What the simulator reports, and when.

#include <errno.h>

#include <future>

#include <gmock/gmock.h>
#include <utils/Timers.h>
#include <nlohmann/json.hpp>

#include "Harness.h"

namespace {

using testing::ElementsAre;

constexpr int64_t kMs = 1000000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int64_t kNoWake = 604800 * kSecond;

std::vector<uint32_t> activitiesOf(const Batch& batch) {
    std::vector<uint32_t> activities;
    for (const ar_context_event& event : batch.events) activities.push_back(event.activity);
    return activities;
}

// The numbers that the scenarios put into `extra`.
std::vector<uint32_t> extrasOf(const Batch& batch) {
    std::vector<uint32_t> extras;
    for (const ar_context_event& event : batch.events) extras.push_back(event.extra);
    return extras;
}

TEST_F(SimulatorTest, HoldsRecordsUpToTheLatencyOfTheirPair) {
    setScenario("wait go\n0 activity still 1\n0 activity walking 1\n0.01 activity walking 1\n");
    start();
    activity->enable_activity_event(0, 1, kSecond);
    activity->enable_activity_event(1, 1, 50 * kMs);
    say("go");

    const Batch first = next();
    EXPECT_THAT(activitiesOf(first), ElementsAre(1, 1));
    EXPECT_GE(first.arrivedNs, first.events[0].timestamp + 50 * kMs);
    EXPECT_EQ(10 * kMs, first.events[1].timestamp - first.events[0].timestamp);
    const Batch second = next();
    EXPECT_THAT(activitiesOf(second), ElementsAre(0));
    EXPECT_GE(second.arrivedNs, second.events[0].timestamp + kSecond);
}

TEST_F(SimulatorTest, NewLatencyAppliesToWhatIsHeld) {
    setScenario("wait go\n0 activity still 1\n0 activity walking 1\n");
    start();
    activity->enable_activity_event(0, 1, kNoWake);
    activity->enable_activity_event(1, 1, 0);
    say("go");
    EXPECT_THAT(activitiesOf(next()), ElementsAre(1));
    activity->enable_activity_event(0, 1, kSecond / 100);
    EXPECT_THAT(activitiesOf(next()), ElementsAre(0));
}

TEST_F(SimulatorTest, SendsFullBuffersEarlyAndTheRestOnFlush) {
    setScenario("wait go\n0 activity still 1 times=500\n0 activity walking 1\n");
    start();
    activity->enable_activity_event(0, 1, kNoWake);
    activity->enable_activity_event(1, 1, 0);
    say("go");
    EXPECT_EQ(192u, next().events.size());
    EXPECT_EQ(192u, next().events.size());
    EXPECT_THAT(activitiesOf(next()), ElementsAre(1));
    EXPECT_EQ(0, activity->flush());
    EXPECT_EQ(116u, next().events.size());
}

TEST_F(SimulatorTest, FlushLeavesEnvironmentsAndLaterRecords) {
    setScenario(
            "wait go\n0 activity still 1 extra=1\n0 extended still 1 extra=2\n"
            "0 environment home 1 extra=3\n0 environment home 2 extra=4\n"
            "wait more\n0 activity still 1 extra=5\n0 environment home 2 extra=6\n");
    start();
    const other_params params = {};
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
    const other_params params = {};
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

TEST_F(SimulatorTest, LoopsAndRunsFaster) {
    // By directives, and by the environment, which wins; a plain loop adds a second.
    const std::string records = "5 activity still 1 times=2 every=10\n";
    for (const bool byDirectives : {true, false}) {
        setScenario((byDirectives ? "speed 2000\nloop 20\n" : "speed 0.001\n") + records);
        if (!byDirectives) {
            set("SPEED", "2000");
            set("LOOP", "1");
        }
        start();
        activity->enable_activity_event(0, 1, 0);
        const int64_t distances[] = {10 * kSecond, byDirectives ? 10 * kSecond : 6 * kSecond};
        std::vector<int64_t> times;
        while (times.size() < 10) {
            for (const ar_context_event& event : next().events) times.push_back(event.timestamp);
        }
        // Which of a round's two was enabled first is a matter of luck.
        const size_t shift = times[1] - times[0] == distances[0] ? 0 : 1;
        for (size_t i = 1; i < times.size(); ++i) {
            EXPECT_EQ(distances[(i + shift + 1) % 2], times[i] - times[i - 1]) << i;
        }
        ASSERT_EQ(0, close());
    }
}

TEST_F(SimulatorTest, WaitsForItsNames) {
    setScenario(
            "loop\nwait one\n0.01 activity still 1 extra=1\nwait two\n"
            "0.01 activity still 1 extra=2\n");
    set("LOOP", "0");
    start();
    activity->enable_activity_event(0, 1, 0);
    const int64_t beforeNs = systemTime(SYSTEM_TIME_MONOTONIC);
    say("two");
    say("three\n  one ");
    const Batch first = next();
    EXPECT_EQ(1u, first.events[0].extra);
    // Time stood still until then.
    EXPECT_GE(first.events[0].timestamp, beforeNs + 10 * kMs);
    // The name that came early was kept.
    EXPECT_EQ(2u, (first.events.size() > 1 ? first : next()).events.back().extra);
}

TEST_F(SimulatorTest, KeepsTheFiveNewestActivitiesCurrent) {
    setScenario(
            "activities a b c d e f\nwait go\n0 activity a 1\n0 extended b 1 value=9 data=1,0x2\n"
            "0 activity c 1\n0 activity d 2\n0 activity e 1\n0 activity f 1\n"
            "0 activity c 2 extra=7\n0 environment home 1\n");
    start();
    ar_context_event* events = nullptr;
    EXPECT_EQ(0, activity->get_current_activity(&events));
    enableEnvironment(0, 1);
    say("go");
    next();
    ASSERT_EQ(5, activity->get_current_activity(&events));
    EXPECT_THAT(activitiesOf({'x', {events, events + 5}, 0}), ElementsAre(1, 3, 4, 5, 2));
    EXPECT_EQ(9u, events[0].value);
    EXPECT_EQ(2u, events[0].context_data[1]);
    EXPECT_EQ(2u, events[4].event_type);
    EXPECT_EQ(7u, events[4].extra);
    EXPECT_STREQ("c", events[4].name);
    EXPECT_EQ(1, environment->get_current_environment(&events));

    char** list = nullptr;
    ASSERT_EQ(6, activity->get_supported_activities_list(&list));
    EXPECT_STREQ("f", list[5]);
    ASSERT_EQ(4, environment->get_supported_environments_list(&list));
    EXPECT_STREQ("home", list[0]);
}

TEST_F(SimulatorTest, MayBeCalledFromInsideACallback) {
    setScenario("wait go\n0 activity still 1\n0 activity walking 1\n");
    start();
    activity->enable_activity_event(0, 1, kNoWake);
    activity->enable_activity_event(1, 1, 0);
    std::promise<int> closed;
    inNextCallback([&] {
        activity->flush();
        closed.set_value(close());
    });
    say("go");
    EXPECT_THAT(activitiesOf(next()), ElementsAre(1));
    EXPECT_THAT(activitiesOf(next()), ElementsAre(0));
    EXPECT_EQ(-EDEADLK, closed.get_future().get());
}

TEST_F(SimulatorTest, TracesCallsAndBatches) {
    setScenario(
            "wait go\n0 extended still 1 extra=1 value=2 data=3,0xffffffffffffffff name=a\"b\\c\n"
            "wait more\n0 activity still 1 extra=4\n");
    start();
    other_params params = {{1, 0.5, -1e300, __builtin_nan("")}, {}};
    for (char& c : params.name) c = '\xe9';
    activity->enable_activity_event_extend(0, 1, 0, &params);
    EXPECT_EQ(-EINVAL, activity->enable_activity_event(5, 1, kNoWake));
    say("go");
    const Batch extended = next();
    say("more");
    const Batch plain = next();

    std::vector<nlohmann::json> lines;
    for (const std::string& line : traceLines()) lines.push_back(nlohmann::json::parse(line));
    ASSERT_LE(4u, lines.size());
    for (nlohmann::json& line : lines) {
        EXPECT_GT(line["t"], 0);
        line.erase("t");
    }
    lines.erase(lines.begin(), lines.end() - 4);
    const std::string latin = [] {
        std::string text;
        for (int i = 0; i < 32; ++i) text += "\u00e9";
        return text;
    }();
    EXPECT_EQ(nlohmann::json({{"native", "enable_activity_event_extend"},
                              {"activity", 0},
                              {"event_type", 1},
                              {"latency_ns", 0},
                              {"params", {1, 0.5, -1e300, nullptr}},
                              {"name", latin},
                              {"result", 0}}),
              lines[0]);
    EXPECT_EQ(nlohmann::json({{"native", "enable_activity_event"},
                              {"activity", 5},
                              {"event_type", 1},
                              {"latency_ns", kNoWake},
                              {"result", -EINVAL}}),
              lines[1]);
    EXPECT_EQ(nlohmann::json({{"native", "activity_extend_changed"},
                              {"count", 1},
                              {"events",
                               {{{"event_type", 1},
                                 {"activity", 0},
                                 {"timestamp", extended.events[0].timestamp},
                                 {"extra", 1},
                                 {"value", 2},
                                 {"context_data", {3, UINT64_MAX, 0, 0}},
                                 {"name", "a\"b\\c"}}}}}),
              lines[2]);
    EXPECT_EQ(nlohmann::json({{"native", "activity_changed"},
                              {"count", 1},
                              {"events",
                               {{{"event_type", 1},
                                 {"activity", 0},
                                 {"timestamp", plain.events[0].timestamp},
                                 {"extra", 4}}}}}),
              lines[3]);
}

}  // namespace
