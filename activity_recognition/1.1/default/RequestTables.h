// SPDX-License-Identifier: Apache-2.0
// What the activity side keeps about requests, native enables, barriers and routed events.
// All records are plain values, copied freely; none owns anything.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <utility>

#include <zaltho/activity_recognition_native.h>

#include "IndexedTable.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// One client's standing request.
struct EnableRequestData {
    uint64_t pid;
    uint32_t activity;
    uint32_t event;            // 1 or 2
    int64_t reportLatencyNs;   // as RoundNumbers leaves it, or NO_WAKE_REPORT_LATENCY_NS
    other_params otherParams;  // all zero for a version 1.0 request
};
static_assert(sizeof(EnableRequestData) == 88, "EnableRequestData changed size");
static_assert(offsetof(EnableRequestData, otherParams) == 24, "EnableRequestData changed");

// A barrier: the time of the last record that the module called current when the client joined the
// pair, 0 when it answered a negative count. Delivery drops older events of the pair.
struct FirstReport {
    uint64_t pid;
    uint32_t activity;
    uint32_t event;
    int64_t timestamp;
};
static_assert(sizeof(FirstReport) == 24, "FirstReport changed size");

#pragma pack(push, 4)

// One pair as the native module was first told of it.
struct EnableToNativeData {
    uint64_t pid;  // of the client whose request created the enable; 0 without a caller
    uint32_t activity;
    uint32_t event;
    int64_t reportLatencyNs;  // of the creating request; later merges don't update it
    uint32_t noWake;          // 1 when the creating request was a no-wake request
};
static_assert(sizeof(EnableToNativeData) == 28, "EnableToNativeData changed size");

// One plain event for one client. In the last-event table: event is the type routed last, timestamp
// that of the first.
struct EventResponseData {
    uint64_t pid;
    uint32_t activity;
    uint32_t event;
    int64_t timestamp;
    uint8_t reserved[64];  // no meaning; copied with the record
    uint32_t extra;        // unset in the last-event table
};
static_assert(sizeof(EventResponseData) == 92, "EventResponseData changed size");
static_assert(offsetof(EventResponseData, extra) == 88, "EventResponseData changed");

#pragma pack(pop)

using PairKey = std::pair<uint32_t, uint32_t>;            // activity, event
using ClientPairKey = std::pair<uint64_t, PairKey>;       // process id, pair
using ClientActivityKey = std::pair<uint64_t, uint32_t>;  // process id, activity

struct PairOf {
    template <typename Record>
    PairKey operator()(const Record& r) const {
        return {uint32_t{r.activity}, uint32_t{r.event}};  // it may be packed: no references
    }
};
struct ClientPairOf {
    template <typename Record>
    ClientPairKey operator()(const Record& r) const {
        return {r.pid, PairOf()(r)};
    }
};
struct ClientActivityOf {
    ClientActivityKey operator()(const EventResponseData& r) const {
        return {uint64_t{r.pid}, uint32_t{r.activity}};
    }
};

using EnableToNativeTable = IndexedTable<EnableToNativeData, PairOf>;
using FirstReportTable = IndexedTable<FirstReport, ClientPairOf>;

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
