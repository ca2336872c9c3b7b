// SPDX-License-Identifier: Apache-2.0
// The service under test, as the command line names it, and access to it from this process.
#pragma once

#include <gtest/gtest.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>

#include <stdint.h>

#include <string>
#include <vector>

namespace V1_0 = ::vendor::zaltho::hardware::activity_recognition::V1_0;
namespace V1_1 = ::vendor::zaltho::hardware::activity_recognition::V1_1;

struct Options {
    // How this program was started, to start it again. Not /proc/self/exe: under an emulator that
    // is the emulator.
    std::string program;
    std::string instance = "default";
    // The simulator plays a scenario in a loop that has all kinds of records: events must come. Any
    // other module may have nothing to tell, and tests that need events are skipped then.
    bool simulator = false;
};

extern Options gOptions;

// How long a test waits for events.
inline int eventTimeoutMs() {
    return gOptions.simulator ? 30000 : 5000;
}

constexpr int64_t kSecondNs = 1000000000;
// Longest text that the service takes in OtherParams; names in records are shorter.
constexpr size_t kLongestName = 32;

// NULL if nobody serves, or the module does not have the side.
::android::sp<V1_1::IActivityRecognition> root();
::android::sp<V1_1::IActivityInterface> activities();
::android::sp<V1_1::IEnvironmentInterface> environments();

V1_0::OtherParams otherParams(double first, size_t nameLength);

// A control call's result. It is 0 or 1 and never a transport error, whatever was asked.
int32_t checked(const ::android::hardware::Return<int32_t>& result);

// The strings that a method hands to its callback.
template <typename Object, typename Method>
std::vector<std::string> listOf(const ::android::sp<Object>& object, Method method) {
    std::vector<std::string> list;
    EXPECT_TRUE(((*object).*method)([&list](const auto& names) {
                    for (const auto& name : names) list.push_back(name);
                }).isOk());
    return list;
}

// What every snapshot keeps to, in either version.
struct CheckSnapshot {
    template <typename Events>
    void operator()(const Events& events) const {
        EXPECT_LE(events.size(), 5u);
        for (const auto& event : events) EXPECT_LT(event.name.size(), kLongestName);
    }
};

struct Pair {
    uint32_t activity;
    uint32_t eventType;

    std::string text() const { return std::to_string(activity) + " " + std::to_string(eventType); }
};

// Pairs that the module takes a request for, from the ids of its list; at most `most`.
std::vector<Pair> acceptedPairs(size_t most);
