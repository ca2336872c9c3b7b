// What the simulator refuses: scenarios, settings, calls.

#include <errno.h>
#include <sys/stat.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "Harness.h"

namespace {

using testing::ElementsAre;

TEST_F(SimulatorTest, NamesFileLineAndReasonOfABadLine) {
    const struct {
        const char* text;
        int line;
        const char* reason;
    } cases[] = {
            {"0 activity wlaking 1", 1, "no activity is named 'wlaking'"},
            {"# a\n\n0 activity 5 1", 3, "no activity is named '5'"},
            {"0 environment still 1", 1, "no environment is named 'still'"},
            {"0 activity still 0", 1, "'0' is not an event type (1 or 2)"},
            {"0 activity still 3", 1, "'3' is not an event type (1 or 2)"},
            {"0 environment home 0", 1, "'0' is not an event type"},
            {"0 activity still", 1, "a record has offset, kind, what, event type"},
            {"0 sensor still 1", 1, "'sensor' is not a kind: activity, extended or environment"},
            {"1 activity still 1\n0.5 activity still 1", 2,
             "offset 0.5 is earlier than the line above"},
            {"0 activity still 1 times=3 every=1\nwait x\n1 activity still 1", 3,
             "offset 1 is earlier than what comes before the wait"},
            {"-1 activity still 1", 1,
             "'-1' is neither a directive nor an offset of 0 to 1000000 seconds"},
            {"nan activity still 1", 1,
             "'nan' is neither a directive nor an offset of 0 to 1000000 seconds"},
            {"0 activity still 1 value=1", 1,
             "'value=1' is not an option of a plain record: extra, times, every"},
            {"0 extended still 1 valeu=1", 1,
             "'valeu=1' is not an option: extra, value, data, name, times, every"},
            {"0 extended still 1 extra=0x100000000", 1, "extra takes a number of 32 bits"},
            {"0 extended still 1 value=-1", 1, "value takes a number of 32 bits"},
            {"0 extended still 1 data=1,2,3,4,5", 1,
             "data takes up to four numbers of 64 bits with commas between them"},
            {"0 extended still 1 name=12345678901234567890123456789012", 1,
             "name takes at most 31 bytes"},
            {"0 activity still 1 times=0", 1, "times takes 1 to 10000"},
            {"0 activity still 1 every=x", 1, "every takes 0 to 1000000 seconds"},
            {"activities a a", 1, "'a' is named twice"},
            {"activities 7", 1, "'7' is not a name of 1 to 31 bytes"},
            {"environments", 1, "'environments' takes 1 to 64 names"},
            {"speed 2\nspeed 3", 2, "'speed' was given before"},
            {"speed 0", 1, "'speed' takes a factor of more than 0 up to 1000000"},
            {"0 activity still 1\nloop", 2, "'loop' must come before the records"},
            {"loop 2\n3 activity still 1", 2, "'loop' starts again before the last record"},
            {"wait", 1, "'wait' takes a name of 1 to 31 bytes"},
    };
    for (const auto& bad : cases) {
        setScenario(bad.text);
        const size_t before = errors().size();
        ASSERT_EQ(-EINVAL, open()) << bad.text;
        ASSERT_EQ(before + 1, errors().size());
        EXPECT_EQ("AR_simulator " + scenarioPath() + ":" + std::to_string(bad.line) + ": " +
                          bad.reason,
                  errors().back());
    }
}

TEST_F(SimulatorTest, NamesABadSetting) {
    const struct {
        const char* variable;
        const char* value;
        const char* reason;
    } cases[] = {
            {"SCENARIO", "/nonexistent.scn", "/nonexistent.scn: No such file or directory"},
            {"SCENARIO", "/tmp", "/tmp: Is a directory"},
            {"SPEED", "fast",
             "AR_SIMULATOR_SPEED: 'fast' is not a factor of more than 0 up to 1000000"},
            {"LOOP", "yes", "AR_SIMULATOR_LOOP: 'yes' is neither 0 nor 1"},
            {"CONTROL", "/dev/null", "AR_SIMULATOR_CONTROL: /dev/null: not a FIFO"},
            {"TRACE", "/nonexistent/t",
             "AR_SIMULATOR_TRACE: /nonexistent/t: No such file or directory"},
    };
    for (const auto& bad : cases) {
        set(bad.variable, bad.value);
        ASSERT_EQ(-EINVAL, open()) << bad.variable;
        EXPECT_EQ(std::string("AR_simulator ") + bad.reason, errors().back());
        set(bad.variable, "");
    }
    setScenario("wait stage\n");
    ASSERT_EQ(-EINVAL, open());
    EXPECT_EQ("AR_simulator " + scenarioPath() +
                      ": waits for 'stage', but AR_SIMULATOR_CONTROL names no FIFO",
              errors().back());
}

TEST_F(SimulatorTest, OpensOnceByItsNameAlone) {
    hw_device_t* other = nullptr;
    EXPECT_EQ(-EINVAL, module->methods->open(module, "activity_recognition", &other));
    start();
    EXPECT_EQ(-EBUSY, open());
    ASSERT_EQ(0, close());
    EXPECT_EQ(-EINVAL, close());
    // The tables outlive the device.
    EXPECT_EQ(-ENODEV, activity->enable_activity_event(0, 1, 0));
    EXPECT_EQ(-ENODEV, activity->flush());
    EXPECT_EQ(0, open());
}

TEST_F(SimulatorTest, RefusesWhatItDoesNotKnow) {
    start();
    const other_params params = {};
    EXPECT_EQ(-EINVAL, activity->enable_activity_event(5, 1, 0));
    EXPECT_EQ(-EINVAL, activity->enable_activity_event(0, 0, 0));
    EXPECT_EQ(-EINVAL, activity->enable_activity_event(0, 3, 0));
    EXPECT_EQ(-EINVAL, activity->enable_activity_event_extend(0, 1, 0, nullptr));
    EXPECT_EQ(-EINVAL, activity->disable_activity_event(0, 3));
    EXPECT_EQ(0, activity->disable_activity_event(0, 1));  // not enabled, which is well
    EXPECT_EQ(-EINVAL, environment->init_environment(4, &params));
    EXPECT_EQ(-EINVAL, environment->init_environment(0, nullptr));
    EXPECT_EQ(-EPERM, environment->enable_environment(0, 1, 0, &params));
    EXPECT_EQ(0, environment->exit_environment(0, &params));
    EXPECT_EQ(0, enableEnvironment(3, 77));
}

TEST_F(SimulatorTest, PlaysTheScenariosThatComeWithIt) {
    ASSERT_EQ(0, mkfifo((scenarioPath() + ".control").c_str(), 0600));
    set("CONTROL", scenarioPath() + ".control");
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator(SCENARIOS)) {
        if (entry.path().extension() != ".scn") continue;
        set("SCENARIO", entry.path());
        ASSERT_EQ(0, open()) << errors().back();
        ASSERT_EQ(0, close());
        ++found;
    }
    EXPECT_LE(3, found);
}

}  // namespace
