// Checks a native activity-recognition module against what the service asks of it.

#include <stdlib.h>
#include <unistd.h>

#include <iostream>

#include <CLI/CLI.hpp>

#include "Checks.h"

using namespace modulecheck;

namespace {

constexpr int kFindings = 1;
constexpr int kCannotRun = 2;

// What a check may take: its own listening, and a call that hangs on top.
struct Step {
    Check check;
    double listens;
};

Report run(const Options& options) {
    Report report;
    const auto allowed = [&](double listens) { return listens * options.listen + options.timeout; };
    runInChild(checkModule, options, allowed(0), &report);
    // Without a device there is nothing to go on with.
    if (!report.has("module.symbol") && !report.has("module.open")) {
        const Step steps[] = {{checkQueries, 1}, {checkCalls, 1},   {checkEvents, 3},
                              {checkReentry, 2}, {checkThreads, 0}, {checkClosing, 1.5}};
        for (const Step& step : steps) {
            runInChild(step.check, options, allowed(step.listens), &report);
        }
    }
    return report;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    double listen = 3, timeout = 5;
    bool json = false, list = false;

    CLI::App app(
            "Checks a native activity-recognition module against what the service asks of it.\n"
            "Each check runs in a process of its own, with the module loaded anew.");
    app.footer("Exit status: 0 no findings, 1 findings, 2 the check could not run.");
    app.set_version_flag("--version", "modulecheck " AR_VERSION);
    auto* what = app.add_option_group("module");
    what->add_option("-m,--module", options.path, "the module's file");
    what->add_option("-i,--id", options.id,
                     "look the module up as the service does, by this id: activity_recognition");
    what->add_flag("--list-rules", list, "print the rules and leave");
    what->require_option(1);
    app.add_flag("-j,--json", json, "report as JSON");
    app.add_option("-l,--listen", listen, "seconds that events are waited for")
            ->capture_default_str()
            ->check(CLI::Range(0.1, 3600.0));
    app.add_option("-t,--timeout", timeout, "seconds after which a call hangs")
            ->capture_default_str()
            ->check(CLI::Range(0.5, 3600.0));
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
    try {
        const Report report = run(options);
        const std::string module = options.path.empty() ? options.id : options.path;
        std::cout << (json ? report.json(module) : report.text(module));
        return report.isClean() ? 0 : kFindings;
    } catch (const std::exception& e) {
        std::cerr << "modulecheck: " << e.what() << "\n";
        return kCannotRun;
    }
}
