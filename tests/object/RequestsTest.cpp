// Rules, lookups and removals on the request tables; records and conversions byte for byte.
#include <math.h>
#include <string.h>

#include "Harness.h"
#include "NativeParams.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {
namespace {

using I = ActivityInterface;

EnableRequestData Request(uint64_t pid, uint32_t activity, uint32_t event, int64_t latencyNs,
                          const OtherParams& params = Params(0, 0, 0, 0)) {
    return {pid, activity, event, latencyNs, ToNativeParams(params)};
}

TEST(Rules, EventTypes) {
    for (uint32_t valid : {1u, 2u}) EXPECT_TRUE(I::ValidEventType(valid)) << valid;
    for (uint32_t wrong : {0u, 3u, 0xffffffffu}) EXPECT_FALSE(I::ValidEventType(wrong)) << wrong;
}

TEST(Rules, LatenciesAreWholeSeconds) {
    const struct {
        int64_t asked, rounded;
    } cases[] = {
            {0, 1000000000},          {1, 1000000000},
            {999999999, 1000000000},  {1000000000, 1000000000},
            {1999999999, 1000000000}, {2500000000, 2000000000},
            {-1, -709551616},         {-5000000000, -5709551616},
    };
    for (const auto& c : cases) EXPECT_EQ(int64_t(I::RoundNumbers(c.asked)), c.rounded) << c.asked;
    EXPECT_EQ(I::RoundNumbers(~0ull), 18446744073000000000ull);
}

TEST(Rules, ExtendedRequests) {
    const OtherParams fits = Params(0, 0, 0, 0, std::string(32, 'n'));
    const OtherParams tooLong = Params(0, 0, 0, 0, std::string(33, 'n'));
    EXPECT_EQ(I::ValidActivityEventExtend(2, 7, fits), 0);
    EXPECT_EQ(I::ValidActivityEventExtend(2, 7, tooLong), -1);
    EXPECT_EQ(I::ValidActivityEventExtend(3, 7, fits), -1);
    EXPECT_EQ(I::ValidActivityEventExtend(1, -1, fits), -1);
}

TEST(Rules, NoWakePattern) {
    const struct {
        OtherParams params;
        bool noWake;
    } cases[] = {
            {Params(1, 0, 0, 0, "any"), true}, {Params(1, -0.0, 0, 0), true},
            {Params(1, 0, 0, 0.5), false},     {Params(0, 0, 0, 0), false},
            {Params(NAN, 0, 0, 0), false},     {Params(1, NAN, 0, 0), false},
            {Params(1, 0, 2, 0), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(I::IsNoWake(c.params), c.noWake) << toString(c.params);
        EXPECT_EQ(I::IsRequestWake(Request(1, 1, 1, 0, c.params)), c.noWake);
    }
}

TEST(Rules, TheSmallestLatencyOfThePairWins) {
    EnableRequestTable table;
    EXPECT_EQ(I::MinReportLatencyNsFunc(1, 1, table), 0);
    table.push_back(Request(1, 1, 1, 5));
    table.push_back(Request(2, 1, 1, 2));
    table.push_back(Request(3, 1, 1, 3));
    table.push_back(Request(3, 1, 2, 1));
    table.push_back(Request(3, 2, 1, -4));
    EXPECT_EQ(I::MinReportLatencyNsFunc(1, 1, table), 2);
    EXPECT_EQ(I::MinReportLatencyNsFunc(2, 1, table), -4);
    EXPECT_EQ(I::MinReportLatencyNsFunc(9, 1, table), 0);
}

TEST(Lookups, OfRequests) {
    EnableRequestTable table;
    EXPECT_EQ(I::FindEnableRequestDataIndex(1, 1, 1, table), -1);
    table.push_back(Request(1, 1, 1, 10));
    table.push_back(Request(2, 1, 1, 20));
    table.push_back(Request(2, 1, 1, 30));
    EXPECT_EQ(I::FindEnableRequestDataIndex(2, 1, 1, table), 1);
    EXPECT_EQ(I::FindEnableRequestDataIndex(2, 1, 2, table), -1);
    EXPECT_EQ(I::FindEnableRequestData(2, 1, 1, table).reportLatencyNs, 20);
    EXPECT_EQ(I::FindEnableRequestData(3, 1, 1, table).pid, 0u);
    // The earlier of two goes, and a miss takes nothing.
    I::RemoveActivityEvent(2, 1, 1, table);
    I::RemoveActivityEvent(2, 2, 1, table);
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[1].reportLatencyNs, 30);
}

TEST(Lookups, OfNativeEnablesFallBackToTheFirst) {
    std::vector<EnableToNativeData> table;
    EXPECT_EQ(I::FindEnableToNativeDataIndex(1, 1, table), -1);
    EXPECT_TRUE(I::FindEnableToNativeDataExist(1, 1, table));
    I::RemoveEnableToNativeData(1, 1, table);
    table = {{5, 1, 1, 10, 0}, {6, 2, 1, 20, 1}, {7, 2, 1, 30, 0}, {8, 3, 2, 40, 0}};
    EXPECT_EQ(I::FindEnableToNativeDataIndex(2, 1, table), 1);
    EXPECT_EQ(I::FindEnableToNativeDataIndex(9, 1, table), 0);
    EXPECT_FALSE(I::FindEnableToNativeDataExist(2, 1, table));
    EXPECT_TRUE(I::FindEnableToNativeDataExist(2, 2, table));
    EXPECT_EQ(I::FindEnableToNativeData(2, 1, table).noWake, 1u);
    EXPECT_EQ(I::FindEnableToNativeData(9, 9, table).activity, 0u);
    I::RemoveEnableToNativeData(2, 1, table);
    I::RemoveEnableToNativeData(9, 1, table);
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].pid, 7u);
}

TEST(Lookups, OfLastEvents) {
    LastEventTable table;
    EXPECT_TRUE(I::CheckRepeatedEvent(1, 5, 1, 100, table));
    EXPECT_TRUE(I::CheckRepeatedEvent(1, 5, 2, 200, table));  // the type is not part of the key
    EXPECT_TRUE(I::CheckRepeatedEvent(1, 6, 2, 300, table));
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].event, 2u);
    EXPECT_EQ(table[0].timestamp, 100);
    I::RemoveLastActivityEvent(1, 5, 1, table);  // but of the removal's
    EXPECT_EQ(table.size(), 2u);
    I::RemoveLastActivityEvent(1, 5, 2, table);
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].activity, 6u);
    EXPECT_TRUE(I::CheckRepeatedEvent(1, 6, 1, 400, table));  // found again where it moved to
    EXPECT_EQ(table.size(), 1u);
}

TEST(Rules, OneStepOfTheReMerge) {
    Act::clear();
    Act::requests().push_back(Request(1, 1, 1, 0, Params(1, 0, 0, 0, "quiet")));
    Act::requests().push_back(Request(2, 1, 1, 0, Params(2, 0, 0, 0, "loud")));
    Act::requests().push_back(Request(3, 1, 1, 0));
    bool allExtended = true;
    other_params noWake = {};
    EXPECT_FALSE(Act::scanStep(3, 1, 1, allExtended, noWake));
    EXPECT_FALSE(Act::scanStep(0, 1, 2, allExtended, noWake));
    EXPECT_FALSE(Act::scanStep(0, 2, 1, allExtended, noWake));
    EXPECT_TRUE(Act::scanStep(1, 1, 1, allExtended, noWake));
    EXPECT_TRUE(allExtended);
    EXPECT_STREQ(noWake.name, "");
    EXPECT_TRUE(Act::scanStep(0, 1, 1, allExtended, noWake));
    EXPECT_TRUE(allExtended);
    EXPECT_STREQ(noWake.name, "quiet");
    EXPECT_EQ(noWake.params[0], 1.0);
    EXPECT_TRUE(Act::scanStep(2, 1, 1, allExtended, noWake));
    EXPECT_FALSE(allExtended);
    EXPECT_STREQ(noWake.name, "quiet");
    Act::clear();
}

TEST(NativeParams, NamesUpToTheFieldsSize) {
    for (size_t length : {0u, 1u, 31u, 32u}) {
        const std::string name(length, 'x');
        const OtherParams params = Params(0.5, -1, 1e300, 7, name);
        ASSERT_TRUE(NameFits(params));
        const other_params native = ToNativeParams(params);
        EXPECT_EQ(native.params[2], 1e300);
        EXPECT_EQ(std::string(native.name, length), name);
        for (size_t i = length; i < sizeof(native.name); ++i) EXPECT_EQ(native.name[i], 0);
    }
    EXPECT_FALSE(NameFits(Params(0, 0, 0, 0, std::string(33, 'x'))));
}

// Client records as they stand in a list for one client: padding must not show what was there.
template <typename Record, typename Native>
hidl_vec<Record> Listed(const Native& native, Record (*convert)(const Native&)) {
    const std::vector<Native> natives(3, native);
    std::vector<std::unique_ptr<char[]>> dirt;
    for (int i = 0; i < 64; ++i) {
        dirt.emplace_back(new char[3 * sizeof(Record)]);
        memset(dirt.back().get(), 0xee, 3 * sizeof(Record));
    }
    dirt.clear();
    return CopyForClient(ConvertAll(natives.data(), 3, convert));
}

TEST(Conversions, PlainRecordsByteForByte) {
    const activity_event native = {2, 7, -9, 11, {0xee, 0xee, 0xee, 0xee}};
    const auto one = Listed(native, I::convertAEToAEV1_1);
    const auto zero = Listed(native, I::convertAEToAEV1_0);
    uint8_t expected[24] = {};
    memcpy(expected, &native, 20);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(memcmp(&one[i], expected, 24), 0) << i;
        EXPECT_EQ(memcmp(&zero[i], expected, 16), 0) << i;
    }
}

TEST(Conversions, ExtendedRecordsByteForByte) {
    const std::string name(31, 'n');
    const ar_context_event native = Context(2, 7, -9, 11, 13, name);
    const auto one = Listed(native, I::convertACEToAEEV1_1);
    const auto zero = Listed(native, I::convertACEToAEEV1_0);
    uint8_t expected[56];
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(memcmp(&one[i], &native, 56), 0) << i;
        EXPECT_EQ(one[i].name, name);
        memcpy(expected, &native, 56);
        memcpy(expected + 16, &native.value, 4);  // value in the place of extra
        memset(expected + 20, 0, 4);
        EXPECT_EQ(memcmp(&zero[i], expected, 56), 0) << i;
        EXPECT_EQ(zero[i].name, name);
    }
}

TEST(Conversions, ANameEndsWithItsFieldAtTheLatest) {
    ar_context_event natives[2];
    memset(natives, 'n', sizeof(natives));
    EXPECT_EQ(I::convertACEToAEEV1_0(natives[0]).name.size(), 32u);
    natives[0].name[4] = 0;
    EXPECT_EQ(I::convertACEToAEEV1_1(natives[0]).name, "nnnn");
}

TEST(Records, RoutedEventInItsClientsForm) {
    EventResponseData routed = {1, 2, 3, 4, {}, 5};
    memset(routed.reserved, 0xee, sizeof(routed.reserved));
    const ZqActivityRecognitionExtEvent event = ToExtEvent(routed);
    EXPECT_EQ(event.activity, 2u);
    EXPECT_EQ(event.event, 3u);
    EXPECT_EQ(event.timestamp, 4);
    EXPECT_EQ(event.extra, 5u);
    for (uint8_t byte : event.reserved) EXPECT_EQ(byte, 0);
}

}  // namespace
}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
