// SPDX-License-Identifier: Apache-2.0
// The suite that integrators run on a device, against the service and the simulator.
#include "ProcessTest.h"

constexpr char kSuite[] = "VtsHalActivityRecognitionV1_1TargetTest";
constexpr char kLoop[] = R"(
activities    still walking running
environments  home office
speed 20
loop  2
0     activity     walking  1  extra=1
0.2   activity     walking  2  extra=2
0.4   activity     still    2  extra=3
0.6   extended     walking  1  extra=4 value=5 name=stride
0.8   environment  home     1  extra=6 value=7
1     activity     walking  1  extra=8
)";

TEST(FunctionalSuite, PassesAgainstTheServiceInAProcessOfItsOwn) {
    Stage files;
    Stage stage(playing(files.write("loop.scn", kLoop)));
    stage.startService();
    stage.serving();
    const auto suite = stage.program(kSuite, {"--simulator"});
    const int status = suite->waitExit(std::chrono::seconds(110));
    fmt::print("{}", suite->out().text());  // the report names each case
    EXPECT_EQ(0, status) << suite->err().text();
    EXPECT_THAT(suite->out().text(), ::testing::Not(HasSubstr("SKIPPED")));
    EXPECT_FALSE(stage.service().hasEnded());
}

TEST(FunctionalSuite, FailsWhenNobodyServes) {
    Stage stage;
    EXPECT_EQ(1, stage.program(kSuite, {})->waitExit());
}
