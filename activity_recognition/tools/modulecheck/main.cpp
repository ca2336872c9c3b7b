// SPDX-License-Identifier: Apache-2.0
// Checks a native activity-recognition module against what the service asks of it.

#include <stdlib.h>
#include <unistd.h>

#include <iostream>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "Checks.h"

using namespace modulecheck;

namespace {

constexpr int kFindings = 1;
constexpr int kCannotRun = 2;

struct Step {
    Check check;
    const char* name;
};

Report run(const Options& options) {
    const Step steps[] = {{checkModule, "opening and closing"},
                          {checkNames, "other devices' names"},
                          {checkQueries, "lists and snapshots"},
                          {checkCalls, "calls and their parameters"},
                          {checkEvents, "records"},
                          {checkLatency, "latencies"},
                          {checkReentry, "calls from inside callbacks"},
                          {checkThreads, "calls from several threads"},
                          {checkClosing, "closing while enabled"}};
    const bool terminal = isatty(STDERR_FILENO) == 1;
    Report report;
    int number = 0;
    for (const Step& step : steps) {
        if (terminal) {
            std::cerr << fmt::format("\r\033[K[{}/{}] {}", ++number, std::size(steps), step.name)
                      << std::flush;
        }
        runInChild(step.check, options, &report);
        // Without a device there is nothing to go on with.
        if (report.has("module.symbol") || report.has("module.open")) break;
    }
    if (terminal) std::cerr << "\r\033[K" << std::flush;
    return report;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    double listen = 3, timeout = 5, tolerance = 0.5;
    bool json = false, list = false, strict = false;

    CLI::App app(
            "Checks a native activity-recognition module against what the service asks of it.\n"
            "Each check runs in a process of its own, with the module loaded anew.");
    app.footer(
            "Exit status: 0 no findings, 1 findings (with --strict also rules that were not\n"
            "exercised), 2 the check could not run. SIGINT, SIGTERM and SIGHUP end it by that signal\n"
            "and the module's process with it.");
    app.set_version_flag("--version", "modulecheck " AR_VERSION);
    auto* what = app.add_option_group("module");
    what->add_option("-m,--module", options.path, "the module's file");
    what->add_option("-i,--id", options.id,
                     "look the module up as the service does, by this id: activity_recognition");
    what->add_flag("--list-rules", list, "print the rules and leave");
    what->require_option(1);
    app.add_flag("-j,--json", json, "report as JSON");
    app.add_flag("-s,--strict", strict, "a rule that could not be exercised counts as broken");
    app.add_option("-l,--listen", listen, "seconds that events are waited for")
            ->capture_default_str()
            ->check(CLI::Range(0.1, 3600.0));
    app.add_option("-t,--timeout", timeout, "seconds after which a call hangs")
            ->capture_default_str()
            ->check(CLI::Range(0.5, 3600.0));
    app.add_option("--tolerance", tolerance,
                   "seconds that a record may come after its latency is over")
            ->capture_default_str()
            ->check(CLI::Range(0.0, 3600.0));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kCannotRun;
    }
    if (list) {
        std::cout << rulesText();
        return 0;
    }

    // The loader would search its own folders for a name without a slash.
    if (!options.path.empty()) {
        char* resolved = realpath(options.path.c_str(), nullptr);
        if (resolved == nullptr || access(resolved, R_OK) != 0) {
            std::cerr << "modulecheck: " << options.path << ": cannot be read\n";
            return kCannotRun;
        }
        options.path = resolved;
        free(resolved);
    }
    options.listen = Seconds(listen);
    options.timeout = Seconds(timeout);
    options.tolerance = Seconds(tolerance);
    try {
        const Report report = run(options);
        const std::string module = options.path.empty() ? options.id : options.path;
        std::cout << (json ? report.json(module, strict) : report.text(module, strict));
        return report.isClean(strict) ? 0 : kFindings;
    } catch (const std::exception& e) {
        std::cerr << "modulecheck: " << e.what() << "\n";
        return kCannotRun;
    }
}
