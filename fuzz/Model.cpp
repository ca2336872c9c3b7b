// SPDX-License-Identifier: Apache-2.0
// The library and the model of its rules, driven by programs that the input stands for.
#include <stdio.h>
#include <stdlib.h>

#include "ModelDriver.h"

using namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string difference = FirstDifference(Mix::MIX, data, size);
    if (difference.empty()) return 0;
    fprintf(stderr, "%s\n", difference.c_str());
    abort();
}
