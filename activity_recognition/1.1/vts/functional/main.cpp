// SPDX-License-Identifier: Apache-2.0
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

namespace {

constexpr char kHelp[] =
        "This suite's own options:\n"
        "  --instance NAME   the instance to test; \"default\" otherwise\n"
        "  --simulator       events must come: the native module is the simulator, with a scenario\n"
        "                    that loops and has records of every kind\n"
        "  --version\n";

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    gOptions.program = argv[0];
    bool client = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--simulator") == 0) {
            gOptions.simulator = true;
        } else if (strcmp(argv[i], "--client") == 0) {
            client = true;
        } else if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printf("\n%s", kHelp);
            return 0;
        } else if (strcmp(argv[i], "--version") == 0) {
            printf("VtsHalActivityRecognitionV1_1TargetTest " AR_VERSION "\n");
            return 0;
        } else if (strcmp(argv[i], "--instance") == 0 && i + 1 < argc) {
            gOptions.instance = argv[++i];
        } else {
            fprintf(stderr, "%s: '%s' is none of its options (--help explains)\n", argv[0],
                    argv[i]);
            return 2;
        }
    }
    return client ? clientMain() : RUN_ALL_TESTS();
}
