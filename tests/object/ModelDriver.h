// SPDX-License-Identifier: Apache-2.0
// Programs for the library and the model of its rules, side by side. After every step all that
// shows is the same: log, native calls, what clients got, results, tables.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {

// Of what programs are made.
enum class Mix {
    kAll,     // calls, events, refusals, deaths, calls inside calls, states that nothing makes
    kModule,  // what the module hands over: any bytes in records, any counts, names, results
};

// Every decision of the program is taken from the bytes; it ends with them. The first difference,
// with its step; empty when there is none.
std::string FirstDifference(Mix mix, const uint8_t* data, size_t size);

}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
