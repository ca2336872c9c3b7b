// SPDX-License-Identifier: Apache-2.0
// Looking into a running service: dump, sweep, top, the trace, and what activityctl prints as JSON.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "ProcessTest.h"

namespace {

class Inside : public ProcessTest {
  protected:
    nlohmann::json inFlight() {
        nlohmann::json calls;
        const auto any = [&] {
            return !(calls = run("dump")->output("dump")[0].at("in_flight")).empty();
        };
        support::require(any, "a call", [this] { return stage().service().describe(); });
        return calls;
    }
};

class Tracer : public ProcessTest {
  protected:
    Tracer()
        : ProcessTest(
                  "speed step\nactivities still walking\nenvironments home\n"
                  "wait a\n0 activity walking 1\nwait b\n"
                  "0 answer enable_activity_event -1\n0 environment home 1 batch=0\n") {
        setenv("HIDL_HOST_TRACE", mPath.c_str(), 1);
    }
    ~Tracer() override { unsetenv("HIDL_HOST_TRACE"); }

    // Whether so many have come and all slices have ended. Throws for what viewers don't take.
    bool complete(size_t count) {
        static const std::regex kLine(R"(\S+-(\d+) \((\d+)\) \[000\] \.\.\.1 \d+\.\d{6}: )"
                                      R"(tracing_mark_write: (?:([BE])|C)\|\2(?:\|(.+))?)");
        static const std::regex kShown(".*(able_|init_|AR |_changed|onActivityChangedV1_1).*");
        mShown.clear();
        std::map<std::string, int> depths;
        int open = 0;
        std::ifstream file(mPath);
        std::string line;
        std::smatch is;
        bool right = std::getline(file, line) && line == "# tracer: nop";
        while (right && std::getline(file, line) && !file.eof()) {  // eof: it is being written
            right = std::regex_match(line, is, kLine);
            int& depth = depths[is[1]];
            const std::string text = std::string(depth, ' ') + is.str(4);
            if (std::regex_match(text, kShown)) mShown.push_back(text);
            const int change = (is[3] == "B") - (is[3] == "E");
            open += change;
            right &= (depth += change) >= 0;
        }
        if (!right) throw std::runtime_error("the trace has " + line);
        return mShown.size() >= count && open == 0;
    }
    void waitFor(size_t count) {
        support::require([=] { return complete(count); }, "the trace", [this] { return mPath; });
    }

    const std::string mPath = stage().folder() + "/traced";
    Calls mShown;  // a blank in front for each slice that it is in
};

}  // namespace

TEST_F(Inside, DumpNamesTheClientThatEverybodyWaitsFor) {
    const auto stopped = ready("watch walking:1");
    stopped->process().signal(SIGSTOP);
    stage().release("go");
    EXPECT_EQ(stopped->pid(), inFlight()[0].at("pid"));
    EXPECT_THAT(
            text("dump"),
            HasSubstr(fmt::format("mListMutex, by the call of onActivityChangedV1_1 to process {}",
                                  stopped->pid())));
}

TEST_F(Inside, SweepWithdrawsWhatADeadClientLeftAndNothingElse) {
    const auto dying = ready("watch walking@2s"), living = ready("watch still:1@2s");
    dying->process().signal(SIGKILL);
    stage().waitForDeath(dying->pid());
    EXPECT_EQ(3u, told().size());
    EXPECT_EQ("walking:1", run("sweep --dry-run walking")->output("orphan")[0].at("pair"));
    run("sweep walking:1 still:1", 1);
    run("sweep -i 1.0", 2);
    EXPECT_EQ(Calls{}, told());
    EXPECT_EQ("swept walking:2\n", text("sweep walking:2"));
    EXPECT_EQ((Calls{"enable 1 2 604800000000000", "disable 1 2"}), told());
    run("sweep");
    EXPECT_EQ((Calls{"enable 1 1 604800000000000", "disable 1 1"}), told());
    EXPECT_EQ("there are no orphans\n", text("sweep"));
}

TEST_F(Inside, JsonIsWhatTheSchemaSays) {
    run("env init home");
    std::vector<std::unique_ptr<Client>> all;
    for (const char* line : {"watch walking:1 --name x --reconnect", "-i 1.0 watch still",
                             "env watch home:1@0", "-i 1.0 env watch", "watch walking:2"}) {
        all.push_back(ready(line));
    }
    all[4]->process().signal(SIGKILL);
    stage().waitForDeath(all[4]->pid());
    all.push_back(run("enable still:1 --leave"));
    all[3]->process().signal(SIGSTOP);
    stage().release("go");
    inFlight();
    for (const char* line : {"dump", "top --count 1"}) all.push_back(run(line));
    all[3]->process().signal(SIGCONT);
    for (int i : {0, 1})
        all[i]->waitFor(i ? "onActivityExtendChanged" : "onActivityExtendChangedV1_1");
    all.push_back(ready("watch --control"));
    Client& controlled = *all.back();
    for (const char* line : {"enable walking:1", "dance", "disable walking:1", "enable walking:1",
                             "flush", "current"}) {
        controlled.command(line);
    }
    controlled.waitFor("current");
    for (const char* text : {"loop\n0 activity still 1\nwait a\n0 answer flush -1\n", "flush\n"}) {
        all.push_back(
                run("scenario check " + stage().write("check.scn", text), *text == 'l' ? 0 : 2));
    }
    for (const char* line :
         {"list", "env list", "status", "current -i 1.0", "env current", "dump", "top --count 2",
          "sweep --dry-run", "sweep", "env init office", "env exit office"}) {
        all.push_back(run(line));
    }
    stage().service().signal(SIGKILL);
    all[0]->waitFor("disconnected");
    all[0]->leave();
    const auto checker =
            stage().command({SOURCES "/tests/process/check_json.py", "activityctl", "lost"});
    for (const auto& client : all) {
        client->process().waitExit();
        checker->write(client->process().out().text() + "\n");
    }
    checker->closeInput();
    EXPECT_EQ(0, checker->waitExit()) << checker->describe();
}

TEST_F(Tracer, ShowsWhatTheModuleIsToldAndHandsInAndWhoGetsIt) {
    const auto slow = ready("watch walking:1@2s"), fast = ready("watch walking:1@1s");
    stage().release("a");
    stage().pass(1'000'000'000);
    waitFor(9);
    fast->leave();
    stage().release("b");
    waitFor(12);
    run("enable still:1 --leave", 1);
    run("env init home");
    slow->leave();
    EXPECT_TRUE(complete(16));
    const std::string call = "HIDL::IActivityChangedCallback::onActivityChangedV1_1::";
    EXPECT_EQ((Calls{" enable_activity_event", " AR latency ns 1:1|2000000000",
                     " enable_activity_event", " AR latency ns 1:1|1000000000", "activity_changed",
                     " " + call + "client", call + "server", " " + call + "client", call + "server",
                     " enable_activity_event", " AR latency ns 1:1|2000000000",
                     "environment_changed", " enable_activity_event", " init_environment",
                     " disable_activity_event", " AR latency ns 1:1|-1"}),
              mShown);
    const auto wrong = stage().command({"env", "HIDL_HOST_TRACE=/", "activityctl", "list"});
    EXPECT_EQ(0, wrong->waitExit());
    EXPECT_THAT(wrong->err().text(), HasSubstr("Cannot open the trace /: Is a directory"));
}

TEST_F(Inside, TopFillsATerminalAndLeavesItAsItWas) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0) GTEST_SKIP() << "no pseudo-terminals on this machine";
    close(terminal);
    const auto client = ready("watch walking:1@3s");
    const std::string script = stage().write(
            "session",
            "trap : TERM; was=$(stty -g); echo before; activityctl top; echo \"ended with $?\"\n"
            "[ $(stty -g) = $was ] && echo as before; exec cat");
    for (const std::string end : {"q", "SIGTERM"}) {
        const std::string socket = stage().folder() + "/" + end;
        const auto server = stage().command({"tmux", "-S", socket, "-f", "/dev/null", "-D"});
        std::string shown;
        const auto tmux = [&](const std::string& line) {
            // -N: it starts no server of its own, which would outlive the test.
            const auto process = stage().command(words("tmux -N -S " + socket + " " + line));
            process->waitExit();
            shown = process->out().text();
            return process->err().text().empty();
        };
        const auto waitFor = [&](const std::string& text) {
            const std::string ask = "capture-pane -p ; display -p #{alternate_on}#{cursor_flag}";
            const auto has = [&] { return tmux(ask) && shown.find(text) != std::string::npos; };
            support::require(has, text, [&] { return shown; });
        };
        support::require([&] { return tmux("new-session -d -x 80 -y 12 sh " + script); }, "tmux",
                         [&] { return server->describe(); });
        waitFor(fmt::format("{}  1.1  activity     1", client->pid()));
        waitFor("3s  enabled");
        EXPECT_THAT(shown, HasSubstr("\n10"));
        tmux("resize-window -x 40 -y 5");
        waitFor("more lines)\nevery second; q to quit");
        if (end == "q") {
            tmux("send-keys q");
        } else if (tmux("display -p #{pane_pid}")) {
            ASSERT_EQ(0, ::kill(-std::stoi(shown), SIGTERM));
        }
        waitFor("ended with 0\nas before");
        EXPECT_THAT(shown, ::testing::MatchesRegex("before\n.*\n01\n"));
    }
}

TEST(OneLiners, PrintWhatTheGuideSays) {
    StageSetup setup = playing(SOURCES "/scenarios/commuter.scn");
    setup.speed = "7000";  // the day in six seconds
    Stage stage(setup);
    stage.startService();
    const auto checker = stage.command({SOURCES "/tests/process/check_one_liners.py"});
    EXPECT_EQ(0, checker->waitExit()) << checker->describe();
}
