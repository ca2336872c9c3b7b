// SPDX-License-Identifier: Apache-2.0
// The demo: a service process with the simulator, client processes of both interface versions, a
// timeline of what happens between them, and a comparison with what the model says must happen.
// Exit status: 0 when reality and model agree, 2 for a wrong command line, 1 otherwise.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <support/ChildProcess.h>

#include "Story.h"

constexpr const char* kHelp =
        R"(Plays a scenario below a service process, with client processes that come, go and are killed, and
compares what each of them gets with what must come.

  activity_recognition_demo [--trace FILE] [SCENARIO]     without one, scenarios/demo.scn
  activity_recognition_demo --help | --version

  --trace FILE   also write it as JSON trace events, which trace viewers open and
                 activityctl timeline draws

Exit status: 0 when all is as it must be, 1 when not, 2 for a wrong command line.
)";

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    std::string scenario, trace;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "--version") {
            fmt::print("{}",
                       argument == "--help" ? kHelp : "activity_recognition_demo " AR_VERSION "\n");
            return 0;
        }
        if (argument == "--trace" && trace.empty() && i + 1 < arguments.size()) {
            trace = arguments[++i];
        } else if (argument[0] != '-' && scenario.empty()) {
            scenario = argument;
        } else {
            fmt::print(stderr, "demo: {} (--help explains)\n",
                       argument == "--trace" ? "--trace takes one file"
                                             : fmt::format("there is no '{}'", argument));
            return 2;
        }
    }
    support::throwOnSignals();
    try {
        const bool agree = demo::Story(scenario.empty() ? DEMO_SCENARIO : scenario).run(trace);
        fmt::print("{}\n", agree ? "The demo is right: every client got exactly its events."
                                 : "The demo is wrong.");
        return agree ? 0 : 1;
    } catch (const std::exception& error) {
        fmt::print(stderr, "demo: {}\n", error.what());
        return 1;
    }
}
