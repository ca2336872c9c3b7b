// SPDX-License-Identifier: Apache-2.0
// Lookups and removals on the request tables; records and conversions byte for byte.
#include <string.h>

#include <memory>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

using I = ActivityInterface;

EnableRequestTable Table(const std::vector<EnableRequestData>& requests) {
    EnableRequestTable table;
    for (const EnableRequestData& request : requests) table.push_back(request);
    return table;
}

TEST(Lookups, OfRequestsTakeTheFirstMatch) {
    EnableRequestTable table = Table({{1, 1, 1, 10, {}}, {2, 1, 1, 20, {}}, {2, 1, 1, 30, {}}});
    EXPECT_EQ(I::FindEnableRequestDataIndex(2, 1, 1, table), 1);
    EXPECT_EQ(I::FindEnableRequestDataIndex(2, 1, 2, table), -1);
    EXPECT_EQ(I::FindEnableRequestData(2, 1, 1, table).reportLatencyNs, 20);
    EXPECT_EQ(I::FindEnableRequestData(3, 1, 1, table).pid, 0u);
    I::RemoveActivityEvent(2, 1, 1, table);
    I::RemoveActivityEvent(2, 2, 1, table);  // there is none
    EXPECT_EQ(Texts(table), (Lines{"1 1 1 10", "2 1 1 30"}));
}

TEST(Lookups, OfNativeEnablesFallBackToTheFirst) {
    EnableToNativeTable table;
    EXPECT_EQ(I::FindEnableToNativeDataIndex(1, 1, table), -1);
    EXPECT_TRUE(I::FindEnableToNativeDataExist(1, 1, table));
    I::RemoveEnableToNativeData(1, 1, table);
    for (const EnableToNativeData& record : std::vector<EnableToNativeData>{
                 {5, 1, 1, 10, 0}, {6, 2, 1, 20, 1}, {7, 2, 1, 30, 0}, {8, 3, 2, 40, 0}}) {
        table.push_back(record);
    }
    EXPECT_EQ(I::FindEnableToNativeDataIndex(2, 1, table), 1);
    EXPECT_EQ(I::FindEnableToNativeDataIndex(9, 1, table), 0);
    EXPECT_FALSE(I::FindEnableToNativeDataExist(2, 1, table));
    EXPECT_TRUE(I::FindEnableToNativeDataExist(2, 2, table));
    EXPECT_EQ(I::FindEnableToNativeData(2, 1, table).noWake, 1u);
    EXPECT_EQ(I::FindEnableToNativeData(9, 9, table).activity, 0u);
    I::RemoveEnableToNativeData(2, 1, table);
    I::RemoveEnableToNativeData(9, 1, table);
    EXPECT_EQ(Texts(table), (Lines{"7 2 1 30 0", "8 3 2 40 0"}));
}

TEST(NativeParams, TheRestOfTheNameIsZero) {
    const OtherParams params = Params({0.5, -1, 1e300, 7}, "name");
    const other_params native = ToNativeParams(params);
    EXPECT_EQ(memcmp(native.params, params.params.data(), sizeof(native.params)), 0);
    EXPECT_STREQ(native.name, "name");
    for (size_t i = 4; i < sizeof(native.name); ++i) EXPECT_EQ(native.name[i], 0) << i;
}

// Of client records as they stand in a list for one client: padding must not show what was there.
template <typename Record, typename Native>
void ExpectBytes(const Native& native, Record (*convert)(const Native&), const void* expected,
                 size_t size) {
    const std::vector<Native> natives(3, native);
    std::vector<std::unique_ptr<char[]>> dirt;
    for (int i = 0; i < 64; ++i) {
        dirt.emplace_back(new char[3 * sizeof(Record)]);
        memset(dirt.back().get(), 0xee, 3 * sizeof(Record));
    }
    dirt.clear();
    for (const Record& record : CopyForClient(ConvertAll(natives.data(), 3, convert))) {
        EXPECT_EQ(memcmp(&record, expected, size), 0);
    }
}

TEST(Conversions, PlainRecordsByteForByte) {
    const activity_event native = {2, 7, -9, 11, {0xee, 0xee, 0xee, 0xee}};
    uint8_t expected[24] = {};
    memcpy(expected, &native, 20);
    ExpectBytes(native, I::convertAEToAEV1_1, expected, 24);
    ExpectBytes(native, I::convertAEToAEV1_0, expected, 16);
}

TEST(Conversions, ExtendedRecordsByteForByte) {
    const ar_context_event native = Context(2, 7, -9, 11, 13);
    ExpectBytes(native, I::convertACEToAEEV1_1, &native, 56);
    ar_context_event zero = native;
    zero.extra = native.value;  // value in the place of extra
    zero.value = 0;
    ExpectBytes(native, I::convertACEToAEEV1_0, &zero, 56);
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
