// SPDX-License-Identifier: Apache-2.0
// Looking into a running service: dump, sweep and top, and what all of activityctl prints as JSON.
#include <stdlib.h>

#include <fstream>

#include "ProcessTest.h"

using nlohmann::json;

namespace {

class Inside : public ProcessTest {
  protected:
    json dump() { return run("dump")->output("dump")[0]; }

    // Kills a client whose pairs nobody else has.
    void kill(Client& client) {
        client.process().signal(SIGKILL);
        stage().waitForDeath(client.pid());
    }

    // What a command of the system's prints.
    std::string shown(const std::string& line, int expectedStatus = 0) {
        const auto process = stage().command(words(line));
        EXPECT_EQ(expectedStatus, process->waitExit()) << process->describe();
        return process->out().text();
    }
    std::string content(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(mFolder + "/" + name).rdbuf();
        return text.str();
    }

    const std::string mFolder = stage().folder();
};

}  // namespace

TEST_F(Inside, DumpNamesTheClientThatEverybodyWaitsFor) {
    const auto stopped = ready("watch walking:1");
    stopped->process().signal(SIGSTOP);
    stage().release("go");
    json seen;
    support::require([&] { return !(seen = dump()).at("in_flight").empty(); }, "the delivery",
                     [&] { return seen.dump(); });
    EXPECT_EQ("onActivityChangedV1_1", seen.at("in_flight")[0].at("call"));
    EXPECT_EQ(stopped->pid(), seen.at("in_flight")[0].at("pid"));
    EXPECT_EQ("walking", seen.at("activity").at("requests")[0].at("activity_name"));
    EXPECT_TRUE(seen.at("activity").at("clients").is_null());
    const std::string shown = text("dump");
    EXPECT_THAT(
            shown,
            HasSubstr(fmt::format(
                    "held: ActivityInterface::mListMutex, by the call of onActivityChangedV1_1 to process {}, for ",
                    stopped->pid())));
    EXPECT_THAT(shown, HasSubstr("clients, with the calls of their callbacks and how long they "
                                 "took: not told, its lock is held"));
}

TEST_F(Inside, SweepWithdrawsWhatADeadClientLeftAndNothingElse) {
    const auto dying = ready("watch walking:1@2s walking:2@2s"),
               staying = ready("watch still:1@2s");
    kill(*dying);
    EXPECT_EQ(3u, told().size());
    EXPECT_EQ(2u, dump().at("activity").at("orphans").size());
    EXPECT_EQ("walking:1", run("sweep --dry-run walking")->output("orphan")[0].at("pair"));
    run("sweep walking:1 still:1", 1);
    run("sweep -i 1.0", 2);
    EXPECT_EQ(Calls{}, told());
    EXPECT_EQ("swept walking:2\n", text("sweep walking:2"));
    EXPECT_EQ((Calls{"enable 1 2 604800000000000", "disable 1 2"}), told());
    run("sweep");
    EXPECT_EQ((Calls{"enable 1 1 604800000000000", "disable 1 1"}), told());
    EXPECT_EQ("there are no orphans\n", text("sweep"));
    EXPECT_EQ(1u, dump().at("activity").at("requests").size());
}

TEST_F(Inside, JsonIsWhatTheSchemaSays) {
    std::vector<std::unique_ptr<Client>> all;
    const auto start = [&](const std::string& line) { return all.emplace_back(ready(line)).get(); };
    all.push_back(run("env init home"));
    const std::pair<const char*, Calls> watchers[] = {
            {"watch walking:1 --name x --reconnect",
             {"onActivityChangedV1_1", "onActivityExtendChangedV1_1"}},
            {"-i 1.0 watch still", {"onActivityChanged", "onActivityExtendChanged"}},
            {"env watch home:1@0", {"onEnvironmentChangedV1_1"}},
            {"-i 1.0 env watch", {"onEnvironmentChanged"}}};
    for (const auto& [line, calls] : watchers) start(line);
    Client& staying = *all[1];
    kill(*start("watch walking:2"));
    all.push_back(run("enable still:1 --leave"));
    all[4]->process().signal(SIGSTOP);
    stage().release("go");
    support::require([&] { return !dump().at("in_flight").empty(); }, "the delivery",
                     [] { return ""; });
    for (const char* line : {"dump", "top --count 1"}) all.push_back(run(line));
    all[4]->process().signal(SIGCONT);
    for (size_t i = 0; i < std::size(watchers); ++i) {
        for (const std::string& call : watchers[i].second) all[i + 1]->waitFor(call);
    }
    auto* controlled = start("watch --control");
    for (const char* line : {"enable walking:1", "dance", "disable walking:1", "enable still:2",
                             "flush", "enable walking:1", "current"}) {
        controlled->command(line);
    }
    controlled->waitFor("current");
    for (const char* line :
         {"list", "env list", "status", "current -i 1.0", "env current", "dump", "top --count 2",
          "sweep --dry-run", "sweep", "dump", "env exit home"}) {
        all.push_back(run(line));
    }
    EXPECT_FALSE(all[all.size() - 6]->output("dump")[0].at("activity").at("barriers").empty());
    stage().service().signal(SIGKILL);
    staying.waitFor("disconnected");
    EXPECT_EQ(0, staying.leave());
    const auto checker = stage().command({CHECK_JSON, SCHEMAS "/activityctl.json", "lost"});
    for (const auto& client : all) {
        client->process().waitExit();
        checker->write(client->process().out().text() + "\n");
    }
    checker->closeInput();
    EXPECT_EQ(0, checker->waitExit()) << checker->describe();
}

TEST_F(Inside, TopFillsATerminalAndLeavesItAsItWas) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0) GTEST_SKIP() << "no pseudo-terminals here";
    close(terminal);
    const auto client = ready("watch walking:1@3s");
    const std::string script = stage().write("session", R"(cd "$1"
echo before
stty -g >settings
sh -c 'echo $$ >pid; exec activityctl top'
echo "ended with $?"
stty -g >settings.after
exec cat)");
    for (const char* end : {"q", "SIGTERM"}) {
        const std::string socket = fmt::format(" -S {}/{} ", mFolder, end);
        const auto server = stage().command(words("tmux -D -f /dev/null" + socket));
        // None of these starts a server of its own, which would outlive the test.
        const std::string tmux = "tmux -N" + socket;
        const auto screenHas = [&](const std::string& text) {
            std::string screen;
            support::require(
                    [&] {
                        screen = shown(tmux + "capture-pane -p");
                        return screen.find(text) != std::string::npos;
                    },
                    text, [&] { return screen; });
            return screen;
        };
        const auto flags = [&] { return shown(tmux + "display -p #{alternate_on}#{cursor_flag}"); };
        support::require(
                [&] {
                    return stage().command(words(tmux + "new-session -d -x 80 -y 12 sh " + script +
                                                 " " + mFolder))
                                   ->waitExit() == 0;
                },
                "tmux", [&] { return server->describe(); });
        EXPECT_THAT(screenHas("q to quit"), HasSubstr("up "));
        EXPECT_THAT(screenHas(fmt::format("{}  1.1  activity     1", client->pid())),
                    ::testing::Not(HasSubstr("before")));
        screenHas("walking:1         1       3s  enabled");
        EXPECT_EQ("10\n", flags());
        shown(tmux + "resize-window -x 40 -y 5");
        screenHas("more lines)\nevery second; q to quit");
        if (end == std::string("q")) {
            shown(tmux + "send-keys q");
        } else {
            ASSERT_EQ(0, ::kill(std::stoi(content("pid")), SIGTERM));
        }
        EXPECT_THAT(screenHas("ended with 0"), StartsWith("before\n"));
        EXPECT_EQ("01\n", flags());
        support::require([&] { return !content("settings.after").empty(); }, "settings",
                         [&] { return server->describe(); });
        EXPECT_EQ(content("settings"), content("settings.after"));
        std::ofstream(mFolder + "/settings.after");  // empty again
    }
}
