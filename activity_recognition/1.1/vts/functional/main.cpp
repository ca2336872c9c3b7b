// Tests of a running activity recognition service, through its public interface alone.
//
//   --instance NAME   the instance to test; "default" otherwise
//   --simulator       the native module is the simulator with a scenario that loops and has plain,
//                     extended and environment records: tests that need events then fail without
//   --client          what the suite starts itself with, to be a client process of its own
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include "ClientProcess.h"
#include "Target.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    gOptions.program = argv[0];
    bool client = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--simulator") == 0) {
            gOptions.simulator = true;
        } else if (strcmp(argv[i], "--client") == 0) {
            client = true;
        } else if (strcmp(argv[i], "--instance") == 0 && i + 1 < argc) {
            gOptions.instance = argv[++i];
        } else {
            fprintf(stderr, "%s: '%s' is none of --instance NAME, --simulator\n", argv[0], argv[i]);
            return 2;
        }
    }
    return client ? clientMain() : RUN_ALL_TESTS();
}
