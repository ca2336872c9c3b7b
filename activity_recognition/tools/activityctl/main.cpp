// SPDX-License-Identifier: Apache-2.0
// activityctl: the service from a terminal. This file is the command line; see Commands.h for what
// the sub-commands do and docs/activityctl.md for the guide.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "Commands.h"
#include "Failure.h"
#include "Options.h"
#include "Output.h"
#include "Service.h"
#include "Waiting.h"
#include "Text.h"

namespace activityctl { namespace {

constexpr const char* kHelpEnd = R"(
Examples:
  activityctl status
  activityctl watch walking:1 --latency 2s
  activityctl watch walking:1@5s running still:2 --json --count 100
  activityctl watch driving:1 --no-wake --name commute
  activityctl --interface 1.0 watch still:1 --for 1min
  activityctl enable walking:1@5s            (holds it until Ctrl-C)
  activityctl flush
  activityctl env init home && activityctl env watch home:1

PAIR is ACTIVITY[:EVENT][@LATENCY]: an activity by name or number, event type 1 or 2 (without it:
both), and how long reports may be held back (min, s, ms, us, ns). The service rounds an activity's
latency down to whole seconds, at least one.

Exit status:
  0  done                         3  nobody serves the instance
  1  the service refused          4  the native module lacks this side
  2  wrong command line           5  the service died or a call failed
  6  the output could not be written
)";

class CommandLine {
  public:
    CommandLine() : mApp("Talks to the activity recognition service.", "activityctl") {
        mApp.footer(kHelpEnd);
        mApp.set_version_flag("--version", "activityctl " AR_VERSION);
        mApp.require_subcommand(1);
        mApp.fallthrough();
        mApp.add_option("--instance", mOptions.instance, "Name that the service is served under")
                ->capture_default_str();
        mApp.add_option_function<std::string>(
                    "-i,--interface",
                    [this](const std::string& version) {
                        mOptions.version = version == "1.0" ? Version::k1_0 : Version::k1_1;
                    },
                    "Interface version to be a client of")
                ->check(CLI::IsMember({"1.0", "1.1"}))
                ->default_str(toText(mOptions.version));
        mApp.add_flag("--json", mOptions.json, "One JSON object per line instead of text");
        mApp.add_flag("--raw", mOptions.raw, "Text with the module's times in nanoseconds");
        mApp.add_flag("--wait{forever}", mWait,
                      "Wait for a service that is not there yet, with --wait=TIME for so long");
        addGeneral();
        addActivities();
        addEnvironments(*mApp.add_subcommand("env", "The same for environments"));
    }

    int run(int argc, char** argv) {
        try {
            mApp.parse(argc, argv);
            if (mWait == "forever")
                mOptions.waitNs = INT64_MAX;
            else if (!mWait.empty())
                mOptions.waitNs = parseTime(mWait, "time for --wait");
            Output output(mOptions.json, mOptions.raw);
            const ExitStatus status = mRun(output);
            if (status != kOk || output.error() == 0) return status;
            Output::complain(std::string("the output could not be written: ") +
                             strerror(output.error()));
            return kOutput;
        } catch (const CLI::Success& help) {
            mApp.exit(help);
            return std::cout.flush() ? kOk : kOutput;
        } catch (const CLI::ParseError& error) {
            const std::string meant = meantCommand();
            Output::complain(std::string(error.what()) +
                             (meant.empty() ? "" : "; did you mean " + meant + "?") +
                             " (activityctl --help explains)");
            return kUsage;
        } catch (const Failure& failure) {
            Output::complain(failure.what());
            return failure.status;
        }
    }

  private:
    using Run = std::function<ExitStatus(Output&)>;

    CLI::App* add(CLI::App& parent, const char* name, const char* help, Run run) {
        CLI::App* command = parent.add_subcommand(name, help);
        command->callback([this, run = std::move(run)] { mRun = run; });
        return command;
    }

    // A command of one side, over a connection that is made when it runs.
    template <typename S>
    CLI::App* add(CLI::App& parent, const char* name, const char* help,
                  std::unique_ptr<S> (Service::*open)(),
                  std::function<ExitStatus(S&, Output&)> run) {
        return add(parent, name, help, [this, open, run = std::move(run)](Output& output) {
            Service service(mOptions.instance, mOptions.version, mOptions.waitNs);
            return run(*(service.*open)(), output);
        });
    }

    // A command that stays until a signal, a time or a count ends it.
    template <typename S>
    CLI::App* addStaying(CLI::App& parent, const char* name, const char* help,
                         std::unique_ptr<S> (Service::*open)(), bool quiet) {
        CLI::App* command = add(parent, name, help, [this, open, quiet](Output& output) {
            if (mOptions.leave) {
                Service service(mOptions.instance, mOptions.version, mOptions.waitNs);
                return enableAndLeave(*(service.*open)(), mOptions, output);
            }
            takeOverSignals();
            const auto openSide = [open](Service& service) { return (service.*open)(); };
            return watch(openSide, mOptions, output, quiet);
        });
        addLatency(*command);
        addExtras(*command);
        command->add_option_function<std::string>(
                "--for",
                [this](const std::string& text) {
                    if (text.empty()) return;
                    mOptions.forNs = parseTime(text, "time for --for");
                    if (*mOptions.forNs < 0) throw Failure(kUsage, "--for is a time of at least 0");
                },
                "Leave after this time, such as 30s");
        command->add_flag("--control", mOptions.control,
                          "Obey lines on standard input: enable PAIR..., disable PAIR..., flush, "
                          "current, quit");
        command->add_flag("--reconnect", mOptions.reconnect,
                          "When the service dies wait for it to come back, and go on");
        return command;
    }

    void addLatency(CLI::App& command) {
        command.add_option_function<std::string>(
                       "--latency",
                       [this](const std::string& text) { mOptions.latencyNs = parseLatency(text); },
                       "For pairs without one of their own")
                ->default_str(formatLatency(mOptions.latencyNs));
    }

    // An activity's enable is an extended one once any of these is given and not empty.
    void addExtras(CLI::App& command) {
        const auto setParams = [this](const std::array<double, 4>& params) {
            std::copy(params.begin(), params.end(), mOptions.extras.params.params.data());
            mOptions.extras.extended = true;
        };
        auto* params = command.add_option_function<std::string>(
                "--params",
                [setParams](const std::string& text) {
                    if (!text.empty()) setParams(parseParams(text));
                },
                "Four numbers for the native module: A,B,C,D");
        command.add_option_function<std::string>(
                "--name",
                [this](const std::string& name) {
                    mOptions.extras.params.name = name;
                    mOptions.extras.extended |= !name.empty();
                },
                "Text for it, at most 32 characters");
        command.add_flag_callback(
                       "--no-wake",
                       [setParams] {
                           setParams({1, 0, 0, 0});
                       },
                       "Ask not to be woken up, which is --params 1,0,0,0")
                ->excludes(params);
    }

    void addPairs(CLI::App& command, const char* help, bool required) {
        command.add_option_function<std::vector<std::string>>(
                       "PAIR",
                       [this](const std::vector<std::string>& texts) {
                           for (const std::string& text : texts) {
                               mOptions.pairs.push_back(parsePair(text));
                           }
                       },
                       help)
                ->required(required);
    }

    void addCount(CLI::App& command) {
        command.add_option("--count", mOptions.count, "Leave after this many events")
                ->check([](const std::string& text) {
                    return parseNumber(text).value_or(0) != 0
                                   ? std::string()
                                   : "'" + text + "' is no number of events";
                });
    }

    void addGeneral() {
        add(mApp, "status", "Versions, interfaces, supported lists and current state",
            [this](Output& output) { return status(mOptions, output); });
    }

    void addActivities() {
        const auto open = &Service::activities;
        add<ActivitySide>(mApp, "list", "Supported activities", open, list);
        add<ActivitySide>(mApp, "current", "The records that are current now", open, current);

        auto* watching = addStaying<ActivitySide>(
                mApp, "watch", "Enable pairs and print events until Ctrl-C", open, false);
        watching->footer(
                "Without a PAIR nothing is enabled: extended events come anyway, and through\n"
                "version 1.0 everybody's plain ones. On Ctrl-C, SIGTERM or SIGHUP it disables "
                "what\n"
                "it enabled. With --json a line with \"what\":\"ready\" tells that all is "
                "enabled.");
        addPairs(*watching, "ACTIVITY[:EVENT][@LATENCY], for example walking:1@5s", false);
        addCount(*watching);

        auto* enabling = addStaying<ActivitySide>(
                mApp, "enable", "Enable pairs and hold them until Ctrl-C", open, true);
        enabling->footer(
                "A request belongs to the process that made it, so this one stays, registered\n"
                "through its interface version, until it is told to go.");
        addPairs(*enabling, "ACTIVITY[:EVENT][@LATENCY]", true);
        enabling->add_flag("--leave", mOptions.leave,
                           "Enable, register nothing and leave: the request outlives this process "
                           "and nobody can withdraw it while the service runs");

        auto* disabling = add<ActivitySide>(mApp, "disable",
                                            "Withdraw a request of this very process (see below)",
                                            open, [this](ActivitySide& side, Output& output) {
                                                return disable(side, mOptions, output);
                                            });
        disabling->footer(
                "A fresh process has no request, so the service refuses unless this process has\n"
                "got the process id of one that left a request behind. To disable while going\n"
                "on, give watch or enable --control a line: disable PAIR.");
        addPairs(*disabling, "ACTIVITY[:EVENT]", true);

        add<ActivitySide>(mApp, "flush", "Have the module deliver what it holds back", open, flush);
    }

    void addEnvironments(CLI::App& env) {
        const auto open = &Service::environments;
        env.require_subcommand(1);
        env.fallthrough();
        env.footer(
                "Control calls go straight to the native module: nothing is merged, counted or\n"
                "undone when a process ends, and every watcher gets every event.");
        add<EnvironmentSide>(env, "list", "Supported environments", open, list);
        add<EnvironmentSide>(env, "current", "The records that are current now", open, current);

        auto* initialising =
                add<EnvironmentSide>(env, "init", "Initialise environments", open,
                                     [this](EnvironmentSide& side, Output& output) {
                                         return initEnvironments(side, mOptions, output);
                                     });
        auto* exiting = add<EnvironmentSide>(env, "exit", "The opposite of init", open,
                                             [this](EnvironmentSide& side, Output& output) {
                                                 return exitEnvironments(side, mOptions, output);
                                             });
        for (CLI::App* command : {initialising, exiting}) {
            addPairs(*command, "ENVIRONMENT by name or number", true);
            addExtras(*command);
        }

        auto* enabling = add<EnvironmentSide>(env, "enable", "Enable pairs; they stay enabled",
                                              open, [this](EnvironmentSide& side, Output& output) {
                                                  return enableAndLeave(side, mOptions, output);
                                              });
        addPairs(*enabling, "ENVIRONMENT[:EVENT][@LATENCY], the latency passed on as it is", true);
        addLatency(*enabling);
        addExtras(*enabling);

        auto* disabling =
                add<EnvironmentSide>(env, "disable", "Disable pairs, whoever enabled them", open,
                                     [this](EnvironmentSide& side, Output& output) {
                                         return disable(side, mOptions, output);
                                     });
        addPairs(*disabling, "ENVIRONMENT[:EVENT]", true);

        auto* watching = addStaying<EnvironmentSide>(
                env, "watch", "Print events until Ctrl-C, of pairs enabled meanwhile if any", open,
                false);
        addPairs(*watching, "ENVIRONMENT[:EVENT][@LATENCY] to enable, and to disable on leaving",
                 false);
        addCount(*watching);
    }

    // The command that was probably meant by a line that names none.
    std::string meantCommand() {
        CLI::App* parent = mApp.got_subcommand("env") ? mApp.get_subcommand("env") : &mApp;
        if (!parent->get_subcommands().empty()) return {};
        std::vector<std::string> names;
        for (const CLI::App* command : parent->get_subcommands(nullptr)) {
            names.push_back(command->get_name());
        }
        for (const std::string& word : mApp.remaining(true)) {
            if (const std::string name = nearest(word, names); !name.empty()) return name;
        }
        return {};
    }

    CLI::App mApp;
    std::string mWait;
    Options mOptions;
    Run mRun;
};

}}  // namespace activityctl

int main(int argc, char** argv) {
    // Where one is closed, nothing else must come to lie; what is written there fails as before.
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
    // A reader that goes away ends a watch in order, with its requests withdrawn.
    signal(SIGPIPE, SIG_IGN);
    return activityctl::CommandLine().run(argc, argv);
}
