// SPDX-License-Identifier: Apache-2.0
// The command line: what can be said there, and what it then makes happen.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <string>

#include "Commands.h"
#include "Help.h"
#include "Options.h"

namespace activityctl {

class CommandLine {
  public:
    CommandLine();

    // Carries out what it says. The exit status; a failure has been told on standard error.
    int run(int argc, char** argv);

  private:
    using Run = std::function<ExitStatus(Output&)>;

    void addGeneral();
    void addActivities();
    void addEnvironments(CLI::App& env);
    void addScenarios(CLI::App& scenario);

    CLI::App* add(CLI::App& parent, const Help& help, Run run);
    // A command of one side, over a connection that is made when it runs.
    template <typename S>
    CLI::App* add(CLI::App& parent, const Help& help, std::unique_ptr<S> (Service::*open)(),
                  std::function<ExitStatus(S&, Output&)> run);
    // A command that stays until a signal, a time or a count ends it.
    template <typename S>
    CLI::App* addStaying(CLI::App& parent, const Help& help, std::unique_ptr<S> (Service::*open)(),
                         bool quiet);
    // The one that writes what comes to a file.
    template <typename S>
    CLI::App* addRecording(CLI::App& parent, const Help& help,
                           std::unique_ptr<S> (Service::*open)());

    // Options that several commands have; help: what they mean there.
    void addPairs(CLI::App& command, const char* help, bool required);
    void addLatency(CLI::App& command, const char* help);
    void addExtras(CLI::App& command, const char* help);
    void addCount(CLI::App& command, const char* what);
    void addFor(CLI::App& command);

    // The command that was probably meant by a line that names none.
    std::string meantCommand();

    CLI::App mApp;
    std::string mWait;
    Options mOptions;
    Run mRun;
};

}  // namespace activityctl
