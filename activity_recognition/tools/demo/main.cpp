// The demo: a service process with the simulator, client processes of both interface versions, a
// timeline of what happens between them, and a comparison with what the model says must happen.
// Exit status: 0 when reality and model agree, 1 otherwise.
#include <fmt/format.h>

#include <cstdio>
#include <exception>

#include <support/ChildProcess.h>

#include "Story.h"

int main(int argc, char** argv) {
    support::throwOnSignals();
    try {
        const bool agree = demo::Story(argc > 1 ? argv[1] : DEMO_SCENARIO).run();
        fmt::print("{}\n", agree ? "The demo is right: every client got exactly its events."
                                 : "The demo is wrong.");
        return agree ? 0 : 1;
    } catch (const std::exception& error) {
        fmt::print(stderr, "demo: {}\n", error.what());
        return 1;
    }
}
