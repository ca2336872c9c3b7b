// SPDX-License-Identifier: Apache-2.0
// Random programs for the library and the model of its rules.
#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "ModelDriver.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

void RunAny(Mix mix, unsigned programs, size_t bytes) {
    for (unsigned seed = 1; seed <= programs; ++seed) {
        std::mt19937 random(seed);
        std::vector<uint8_t> program(bytes);
        std::generate(program.begin(), program.end(), [&] { return uint8_t(random()); });
        ASSERT_EQ(FirstDifference(mix, program.data(), program.size()), "") << "seed " << seed;
    }
}

TEST(ModelTest, AnyProgramRunsAsTheModelDoes) {
    RunAny(Mix::kAll, 300, 5000);
}

TEST(ModelTest, AnyModuleIsTakenAsTheModelDoes) {
    RunAny(Mix::kModule, 100, 5000);
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
