// SPDX-License-Identifier: Apache-2.0
// What the simulator refuses: scenarios, settings, calls.

#include <errno.h>

#include "Harness.h"

using testing::ElementsAre;
using testing::StartsWith;

TEST_F(SimulatorTest, NamesFileLineAndReasonOfABadLine) {
    const struct {
        const char* text;
        int line;
        const char* reason;
    } cases[] = {
            {"# a\n\n0 activity wlaking 1", 3, "no activity is named 'wlaking'"},
            {"0 environment 4 1", 1, "no environment is named '4'"},
            {"0 activity still 3", 1, "'3' is not an event type (1 or 2)"},
            {"0 activity still", 1, "a record has offset, kind, what, event type"},
            {"nan activity still 1", 1, "'nan' is neither a directive nor an offset"},
            {"1 activity still 1\n0.5 activity still 1", 2, "offset 0.5 is earlier than the line"},
            {"0 activity still 1 times=3 every=1\nwait x\n1 activity still 1", 3,
             "offset 1 is earli"},
            {"0 activity still 1 value=1", 1, "'value=1' is not an option of a plain record"},
            {"0 extended still 1 extra=0x100000000", 1, "extra takes a number of 32 bits"},
            {"0 extended still 1 data=1,2,3,4,5", 1, "data takes up to four numbers of 64 bits"},
            {"0 extended still 1 name=12345678901234567890123456789012", 1, "name takes at most"},
            {"activities a a", 1, "'a' is named twice"},
            {"0 activity still 1\nloop", 2, "'loop' must come before the records"},
            {"loop 2\n3 activity still 1", 2, "'loop' starts again before the last record"},
            {"0 activity still 1 times=10000 every=1000000", 1,
             "times=10000 every=1000000: the last repetition is at 9999000000 seconds, at most 1000000"},
            {"1e6 activity still 1 every=0.5 times=2", 1,
             "times=2 every=0.5: the last repetition is at 1000000.5 seconds, at most 1000000"},
            {"loop 0\n0 activity still 1", 1, "'0': 'loop' takes seconds, more than 0 up to"},
            {"lacks sensors", 1, "'sensors' is not a side: activity or environment"},
            {"0 answer close -1", 1, "'close' is not a slot that can fail"},
            {"0 answer flush 6", 1, "'6' is not an answer of flush: -4095 to -1"},
            {"0 activity still 1 batch=-1", 1, "batch takes 0 to 10000"},
            {"0 extended still 1 broken=type", 1, "broken takes name here"},
            {"speed 10001", 1, "'10001': 'speed' takes a factor of 0.001 to 10000"},
    };
    for (const auto& bad : cases) {
        setScenario(bad.text);
        errors.clear();
        ASSERT_EQ(-EINVAL, open()) << bad.text;
        EXPECT_THAT(errors, ElementsAre(StartsWith("AR_simulator " + scenario + ":" +
                                                   std::to_string(bad.line) + ": " + bad.reason)));
    }
}

TEST_F(SimulatorTest, NamesABadSetting) {
    const struct {
        const char* variable;
        std::string value;
        std::string reason;
    } cases[] = {
            {"SCENARIO", "/nonexistent.scn", "/nonexistent.scn: No such file or directory"},
            {"SCENARIO", "/tmp", "/tmp: Is a directory"},
            {"SCENARIO", scenario, scenario + ": waits for 'stage', but AR_SIMULATOR_CONTROL"},
            {"SPEED", "fast", "AR_SIMULATOR_SPEED: 'fast' is not a factor of 0.001 to 10000"},
            {"SPEED", "1e-4", "AR_SIMULATOR_SPEED: '1e-4' is not a factor of 0.001 to 10000"},
            {"LOOP", "yes", "AR_SIMULATOR_LOOP: 'yes' is neither 0 nor 1"},
            {"CONTROL", "/dev/null", "AR_SIMULATOR_CONTROL: /dev/null: not a FIFO"},
            {"TRACE", "/nonexistent/t", "AR_SIMULATOR_TRACE: /nonexistent/t: No such file"},
    };
    setScenario("wait stage\n");
    for (const auto& bad : cases) {
        set("SCENARIO", "");
        set(bad.variable, bad.value);
        ASSERT_EQ(-EINVAL, open()) << bad.variable;
        EXPECT_THAT(errors.back(), StartsWith("AR_simulator " + bad.reason));
        set(bad.variable, "");
    }
}

TEST_F(SimulatorTest, RefusesALoopThatNobodyCouldPlay) {
    setScenario("loop 0.000000001\n0 activity still 1");
    set("SPEED", "100");
    ASSERT_EQ(-EINVAL, open());
    EXPECT_EQ(errors.back(), "AR_simulator " + scenario + ": a loop of more than 100000 records " +
                                     "a second: 1 in 1e-09 s, speed 100");
    set("SPEED", "step");
    ASSERT_EQ(-EINVAL, open());
    EXPECT_EQ(errors.back(), "AR_simulator " + scenario + ": loops in virtual time, but " +
                                     "AR_SIMULATOR_CONTROL names no FIFO to grant it");
    set("LOOP", "0");
    EXPECT_EQ(0, open()) << "once is well";
}

TEST_F(SimulatorTest, RefusesWhatItDoesNotKnowAndASecondOpening) {
    start();
    EXPECT_EQ(-EINVAL, activity->enable_activity_event(0, 0, 0));
    EXPECT_EQ(-EINVAL, activity->enable_activity_event_extend(0, 1, 0, nullptr));
    EXPECT_EQ(-EINVAL, activity->disable_activity_event(0, 3));
    EXPECT_EQ(0, activity->disable_activity_event(0, 1));  // not enabled, which is well
    EXPECT_EQ(-EINVAL, environment->init_environment(4, &params));
    EXPECT_EQ(-EINVAL, environment->init_environment(0, nullptr));
    EXPECT_EQ(-EPERM, environment->enable_environment(0, 1, 0, &params));
    EXPECT_EQ(0, environment->exit_environment(0, &params));
    EXPECT_EQ(0, enableEnvironment(3, 77));
    EXPECT_EQ(-EBUSY, open());
    ASSERT_EQ(0, close());
    EXPECT_EQ(-EINVAL, close());
    // The tables outlive the device.
    EXPECT_EQ(-ENODEV, activity->enable_activity_event(0, 1, 0));
    EXPECT_EQ(-ENODEV, activity->flush());
    EXPECT_EQ(0, open());
}
