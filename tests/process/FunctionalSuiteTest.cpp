// The suite that integrators run on a device, against the service and the simulator.
#include "ProcessTest.h"

namespace {

constexpr char kLoop[] = R"(
activities    still walking running
environments  home office
loop  2
0     activity     walking  1  extra=1
0.2   activity     walking  2  extra=2
0.4   activity     still    2  extra=3
0.6   extended     walking  1  extra=4 value=5 name=stride
0.8   environment  home     1  extra=6 value=7
1     activity     walking  1  extra=8
)";

}  // namespace

TEST(FunctionalSuite, PassesAgainstTheServiceInAProcessOfItsOwn) {
    support::Stage folder;
    support::StageSetup setup;
    setup.scenario = folder.write("loop.scn", kLoop);
    setup.speed = "20";
    support::Stage stage(setup);
    stage.startService();
    stage.serving();
    const auto suite = stage.program("VtsHalActivityRecognitionV1_1TargetTest", {"--simulator"});
    const int status = suite->waitExit(std::chrono::seconds(110));
    fmt::print("{}", suite->out().text());  // the report names each case
    EXPECT_EQ(0, status) << suite->err().text();
    EXPECT_EQ(std::string::npos, suite->out().text().find("SKIPPED"));
    EXPECT_FALSE(stage.service().hasEnded());
}

TEST(FunctionalSuite, FailsWhenNobodyServes) {
    support::Stage stage;
    const auto suite = stage.program("VtsHalActivityRecognitionV1_1TargetTest", {});
    EXPECT_EQ(1, suite->waitExit());
}
