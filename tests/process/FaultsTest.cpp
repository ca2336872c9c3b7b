// SPDX-License-Identifier: Apache-2.0
// What the service makes of a module that does what none should.
#include "ProcessTest.h"

namespace {

// Slots, and commands that end up there.
const std::pair<const char*, const char*> kRefused[] = {
        {"enable_activity_event", "enable still:1"},
        {"enable_activity_event_extend", "enable still:1 --name n"},
        {"disable_activity_event", "watch still:1 --for 0s"},
        {"flush", "flush"},
        {"init_environment", "env init home"},
        {"exit_environment", "env exit home"},
        {"enable_environment", "env enable home:1"},
        {"disable_environment", "env disable home:1"},
};

const struct Played {
    std::string lines;        // without their offset 0, a semicolon after each
    std::string log;          // the service's, once a line
    std::string command;      // when they have been played
    std::vector<int> extras;  // that the watcher of walking gets after the command, if there is one
} kPlayed[] = {
        {"activity still 1 batch=0;activity still 1 batch=193;", "Invalid actChangedCb", "", {}},
        {"extended still 1 batch=0;extended still 1 batch=193;", "Invalid actExtendChan", "", {}},
        {"environment home 1 batch=0;environment home 1 batch=193;", "Invalid envChang", "", {}},
        {"answer get_current_activity -7;", "Activity error size(-7)", "current", {}},
        {"answer get_current_environment 9;", "Environment error size(9)", "env current", {}},
        {"activity walking 1 extra=5 threads=2 batch=3;", "", "", {5, 5, 5, 5, 5, 5}},
        {"activity walking 1 extra=4 inside=flush;", "start count[1]", "flush", {4}},
        {"activity walking 1 extra=1;activity walking 1 broken=type;", "", "flush", {1}},
        {"extended still 1 name=filling broken=name batch=1;", "", "", {}},
};

class Faults : public ProcessTest {
  protected:
    Faults() : ProcessTest(scenario()) {}

    static std::string scenario() {
        std::string text = "activities still walking\nenvironments home\nspeed step\n";
        for (const auto& refused : kRefused) text += fmt::format("0 answer {} -5\n", refused.first);
        for (const Played& played : kPlayed) {
            text += "wait go\n" +
                    std::regex_replace(played.lines, std::regex("([^;]+);"), "0 $1\n") +
                    "0 extended walking 1 name=played batch=1\n";
        }
        return text;
    }
};

TEST_F(Faults, AreAnsweredAsTheLogSaysAndHarmNobodyElse) {
    for (const auto& refused : kRefused) {
        run(refused.second, 1);
        EXPECT_THAT(told().back(), ::testing::EndsWith(" = -5"));
    }
    const auto watcher = ready("watch walking:1");
    const std::string plain = "onActivityChangedV1_1", extended = "onActivityExtendChangedV1_1";
    std::vector<int> expected, got;
    for (const Played& played : kPlayed) {
        SCOPED_TRACE(played.lines);
        stage().release("go");
        watcher->waitForEvents(extended, &played - kPlayed + 1);
        if (!played.command.empty()) {
            EXPECT_EQ(got.size(), watcher->events(plain).size());
            run(played.command);
        }
        const auto lines = std::count(played.lines.begin(), played.lines.end(), ';');
        EXPECT_EQ(played.log.empty() ? 0 : lines,
                  stage().countInLog(played.log.empty() ? "\n" : played.log));
        expected.insert(expected.end(), played.extras.begin(), played.extras.end());
        watcher->waitForEvents(plain, expected.size());
        got.clear();
        for (const auto& event : watcher->events(plain)) got.push_back(event.at("extra"));
        EXPECT_EQ(expected, got);
    }
    EXPECT_EQ("filling" + std::string(25, '~'),
              watcher->events(extended).at(std::size(kPlayed) - 1).at("name"));
}

TEST_F(Faults, OfALackedSideAreToldToWhoeverAsksForIt) {
    Stage lacking(playing(stage().write("lacks.scn", "lacks environment\n")));
    lacking.startService();
    lacking.serving();
    EXPECT_LE(1u, lacking.countInLog("EnvironmentInterface interface not implemented by ar HAL"));
    EXPECT_EQ(4, lacking.client({"env", "list"})->process().waitExit());
    EXPECT_EQ(0, lacking.client({"list"})->process().waitExit());
}

}  // namespace
