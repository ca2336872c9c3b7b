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

// How long a test waits for events, and for answers.
int eventTimeoutMs();
constexpr int kAnswerTimeoutMs = 30000;

// Longest text that the service takes in OtherParams; names in records are shorter.
constexpr size_t kLongestName = 32;

::android::sp<V1_0::IActivityRecognition> rootV1_0();
::android::sp<V1_1::IActivityRecognition> rootV1_1();

// NULL if the module does not have the side.
::android::sp<V1_1::IActivityInterface> activities();
::android::sp<V1_1::IEnvironmentInterface> environments();

V1_0::OtherParams otherParams(double first, size_t nameLength);

// A control call's result. It is 0 or 1 and never a transport error, whatever was asked.
int32_t checked(const ::android::hardware::Return<int32_t>& result);

// What every snapshot keeps to, in either version.
template <typename Events>
void checkSnapshot(const Events& events) {
    EXPECT_LE(events.size(), 5u);
    for (const auto& event : events) EXPECT_LT(event.name.size(), kLongestName);
}

struct Pair {
    uint32_t activity;
    uint32_t eventType;
};

// Pairs that the module takes a request for, from the ids of its list; at most `most`.
std::vector<Pair> acceptedPairs(size_t most);
