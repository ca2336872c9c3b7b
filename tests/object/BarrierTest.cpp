// SPDX-License-Identifier: Apache-2.0
// What programs of the model driver seldom meet: a barrier that is taken between two records.
#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

using BarrierTest = ObjectTest;

TEST_F(BarrierTest, HoldsFromItsMomentOn) {
    add<ActClient1>(70, "c");
    enable(70, 1, 1, 0);
    module.current = {Context(1, 1, 100)};
    // In the middle of a batch: one more record comes just before the barrier is taken.
    bool joined = false;
    module.inside = [] { Act::route({1, 1, 5, 0, {}}, 71); };
    Act::deliver({{1, 1, 4, 0, {}}, {1, 1, 99, 0, {}}, {1, 1, 100, 0, {}}}, 71, [&] {
        if (!std::exchange(joined, true)) enable(71, 1, 1, 0);
    });
    EXPECT_EQ(TakeJournal(), Lines{"c plain (1,1,4,0) (1,1,5,0) (1,1,5,0) (1,1,100,0)"});
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
