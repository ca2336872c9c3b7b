// SPDX-License-Identifier: Apache-2.0
#include "CommandLine.h"

#include <cstdint>
#include <cstring>
#include <iostream>
#include <vector>

#include "Failure.h"
#include "Output.h"
#include "Service.h"
#include "Text.h"
#include "Waiting.h"

namespace activityctl {

CommandLine::CommandLine() : mApp("Talks to the activity recognition service.", "activityctl") {
    mApp.footer(kGeneralHelp);
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
    mApp.add_flag("--raw", mOptions.raw, "Text with times in nanoseconds");
    mApp.add_flag("--wait{forever}", mWait,
                  "Wait for a service that is not there yet, with --wait=TIME for so long");
    addGeneral();
    addActivities();
    auto* env = mApp.add_subcommand(kEnvHelp.name, kEnvHelp.summary);
    env->footer(kEnvHelp.details);
    addEnvironments(*env);
    auto* scenario = mApp.add_subcommand(kScenarioHelp.name, kScenarioHelp.summary);
    scenario->footer(kScenarioHelp.details);
    addScenarios(*scenario);
}

int CommandLine::run(int argc, char** argv) {
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

CLI::App* CommandLine::add(CLI::App& parent, const Help& help, Run run) {
    CLI::App* command = parent.add_subcommand(help.name, help.summary);
    command->footer(help.details);
    command->callback([this, run = std::move(run)] { mRun = run; });
    return command;
}

template <typename S>
CLI::App* CommandLine::add(CLI::App& parent, const Help& help,
                           std::unique_ptr<S> (Service::*open)(),
                           std::function<ExitStatus(S&, Output&)> run) {
    return add(parent, help, [this, open, run = std::move(run)](Output& output) {
        Service service(mOptions.instance, mOptions.version, mOptions.waitNs);
        return run(*(service.*open)(), output);
    });
}

template <typename S>
CLI::App* CommandLine::addStaying(CLI::App& parent, const Help& help,
                                  std::unique_ptr<S> (Service::*open)(), bool quiet) {
    CLI::App* command = add(parent, help, [this, open, quiet](Output& output) {
        if (mOptions.leave) {
            Service service(mOptions.instance, mOptions.version, mOptions.waitNs);
            return enableAndLeave(*(service.*open)(), mOptions, output);
        }
        takeOverSignals();
        const auto openSide = [open](Service& service) { return (service.*open)(); };
        return watch(openSide, mOptions, output, quiet);
    });
    addFor(*command);
    command->add_flag("--control", mOptions.control,
                      "Obey lines on standard input: enable PAIR..., disable PAIR..., flush, "
                      "current, quit");
    command->add_flag("--reconnect", mOptions.reconnect,
                      "When the service dies wait for it to come back, and go on");
    return command;
}

template <typename S>
CLI::App* CommandLine::addRecording(CLI::App& parent, const Help& help,
                                    std::unique_ptr<S> (Service::*open)()) {
    CLI::App* command = add(parent, help, [this, open](Output& output) {
        takeOverSignals();
        return record([open](Service& service) { return (service.*open)(); }, mOptions, output);
    });
    command->add_option("FILE", mOptions.file, "The trace to write")->required();
    addFor(*command);
    command->add_option_function<std::string>(
                   "--every",
                   [this](const std::string& text) {
                       mOptions.everyNs = parseTime(text, "time for --every");
                       if (mOptions.everyNs < 10'000'000 || mOptions.everyNs > 60'000'000'000) {
                           throw Failure(kUsage, "--every is a time from 10ms to 1min");
                       }
                   },
                   "Time between two dumps of the service, 10ms to 1min")
            ->default_str(formatLatency(mOptions.everyNs));
    return command;
}

void CommandLine::addFor(CLI::App& command) {
    command.add_option_function<std::string>(
            "--for",
            [this](const std::string& text) {
                if (text.empty()) return;
                mOptions.forNs = parseTime(text, "time for --for");
                if (*mOptions.forNs < 0) throw Failure(kUsage, "--for is a time of at least 0");
            },
            "Leave after this time, such as 30s");
}

void CommandLine::addLatency(CLI::App& command, const char* help) {
    command.add_option_function<std::string>(
                   "--latency",
                   [this](const std::string& text) { mOptions.latencyNs = parseLatency(text); },
                   help)
            ->default_str(formatLatency(mOptions.latencyNs));
}

// An activity's enable is an extended one once any of these is given and not empty.
void CommandLine::addExtras(CLI::App& command, const char* help) {
    const auto setParams = [this](const std::array<double, 4>& params) {
        std::copy(params.begin(), params.end(), mOptions.extras.params.params.data());
        mOptions.extras.extended = true;
    };
    auto* params = command.add_option_function<std::string>(
            "--params",
            [setParams](const std::string& text) {
                if (!text.empty()) setParams(parseParams(text));
            },
            help);
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

void CommandLine::addPairs(CLI::App& command, const char* help, bool required) {
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

void CommandLine::addCount(CLI::App& command, const char* what) {
    command.add_option("--count", mOptions.count, fmt::format("Leave after this many {}", what))
            ->check([what](const std::string& text) {
                return parseNumber(text).value_or(0) != 0
                               ? std::string()
                               : fmt::format("'{}' is no number of {}", text, what);
            });
}

constexpr const char* kLatencyHelp =
        "For pairs without one of their own; the service rounds it down to whole seconds, at least one";
constexpr const char* kParamsHelp =
        "A,B,C,D: four numbers for the native module; they make it an extended enable";
constexpr const char* kEnvParamsHelp = "A,B,C,D: four numbers for the native module";

void CommandLine::addGeneral() {
    add(mApp, kStatusHelp, [this](Output& output) { return status(mOptions, output); });
    add(mApp, kDumpHelp, [this](Output& output) { return dump(mOptions, output); });
    auto* watching = add(mApp, kTopHelp, [this](Output& output) {
        takeOverSignals(topSignals());
        return top(mOptions, output);
    });
    addCount(*watching, "refreshes");
    addFor(*watching);
    auto* sweeping =
            add(mApp, kSweepHelp, [this](Output& output) { return sweep(mOptions, output); });
    addPairs(*sweeping, "ACTIVITY[:EVENT] of an orphan, without EVENT all of the activity's",
             false);
    sweeping->add_flag("--dry-run", mOptions.dryRun,
                       "Tell what would be swept, and change nothing");
    auto* drawing = add(mApp, kTimelineHelp, [this](Output&) { return timeline(mOptions); });
    drawing->add_option("FILE", mOptions.file, "The trace, such as scripts/demo --trace writes")
            ->required();
    drawing->add_option("-o,--output", mOptions.picture, "The picture to write, an SVG file")
            ->required();
    drawing->add_flag("--even", mOptions.even,
                      "One moment beside the other, whatever time passed between them");
}

void CommandLine::addActivities() {
    const auto open = &Service::activities;
    add<ActivitySide>(mApp, kListHelp, open, list);
    add<ActivitySide>(mApp, kCurrentHelp, open, current);

    auto* watching = addStaying<ActivitySide>(mApp, kWatchHelp, open, false);
    addPairs(*watching, "ACTIVITY[:EVENT][@LATENCY], for example walking:1@5s", false);
    addLatency(*watching, kLatencyHelp);
    addExtras(*watching, kParamsHelp);
    addCount(*watching, "events");

    auto* recording = addRecording<ActivitySide>(mApp, kRecordHelp, open);
    addPairs(*recording, "ACTIVITY[:EVENT][@LATENCY] to enable meanwhile", false);
    addLatency(*recording, kLatencyHelp);
    addExtras(*recording, kParamsHelp);
    addCount(*recording, "events");

    auto* enabling = addStaying<ActivitySide>(mApp, kEnableHelp, open, true);
    addPairs(*enabling, "ACTIVITY[:EVENT][@LATENCY]", true);
    addLatency(*enabling, kLatencyHelp);
    addExtras(*enabling, kParamsHelp);
    enabling->add_flag("--leave", mOptions.leave,
                       "Enable, register nothing and leave: the request outlives this process "
                       "and nobody can withdraw it while the service runs");

    auto* disabling = add<ActivitySide>(
            mApp, kDisableHelp, open,
            [this](ActivitySide& side, Output& output) { return disable(side, mOptions, output); });
    addPairs(*disabling, "ACTIVITY[:EVENT]", true);

    add<ActivitySide>(mApp, kFlushHelp, open, flush);
}

void CommandLine::addEnvironments(CLI::App& env) {
    const auto open = &Service::environments;
    env.require_subcommand(1);
    env.fallthrough();
    add<EnvironmentSide>(env, kEnvListHelp, open, list);
    add<EnvironmentSide>(env, kEnvCurrentHelp, open, current);

    auto* initialising = add<EnvironmentSide>(env, kEnvInitHelp, open,
                                              [this](EnvironmentSide& side, Output& output) {
                                                  return initEnvironments(side, mOptions, output);
                                              });
    auto* exiting = add<EnvironmentSide>(env, kEnvExitHelp, open,
                                         [this](EnvironmentSide& side, Output& output) {
                                             return exitEnvironments(side, mOptions, output);
                                         });
    for (CLI::App* command : {initialising, exiting}) {
        addPairs(*command, "ENVIRONMENT by name or number", true);
        addExtras(*command, kEnvParamsHelp);
    }

    auto* enabling = add<EnvironmentSide>(env, kEnvEnableHelp, open,
                                          [this](EnvironmentSide& side, Output& output) {
                                              return enableAndLeave(side, mOptions, output);
                                          });
    addPairs(*enabling, "ENVIRONMENT[:EVENT][@LATENCY]", true);

    auto* disabling = add<EnvironmentSide>(env, kEnvDisableHelp, open,
                                           [this](EnvironmentSide& side, Output& output) {
                                               return disable(side, mOptions, output);
                                           });
    addPairs(*disabling, "ENVIRONMENT[:EVENT]", true);

    auto* watching = addStaying<EnvironmentSide>(env, kEnvWatchHelp, open, false);
    addPairs(*watching, "ENVIRONMENT[:EVENT][@LATENCY] to enable, and to disable on leaving",
             false);
    auto* recording = addRecording<EnvironmentSide>(env, kEnvRecordHelp, open);
    addPairs(*recording, "ENVIRONMENT[:EVENT][@LATENCY] to enable, and to disable on leaving",
             false);
    for (CLI::App* command : {watching, recording}) addCount(*command, "events");
    for (CLI::App* command : {enabling, watching, recording}) {
        addLatency(*command, "For pairs without one of their own; the module gets it as it is");
        addExtras(*command, kEnvParamsHelp);
    }
}

void CommandLine::addScenarios(CLI::App& scenario) {
    scenario.require_subcommand(1);
    scenario.fallthrough();
    add(scenario, kScenarioCheckHelp,
        [this](Output& output) { return checkScenario(mOptions, output); })
            ->add_option("FILE", mOptions.file, "The scenario")
            ->required();
}

std::string CommandLine::meantCommand() {
    CLI::App* parent = &mApp;
    for (const char* group : {kEnvHelp.name, kScenarioHelp.name}) {
        if (mApp.got_subcommand(group)) parent = mApp.get_subcommand(group);
    }
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

}  // namespace activityctl
