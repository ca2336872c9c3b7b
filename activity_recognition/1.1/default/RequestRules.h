// SPDX-License-Identifier: Apache-2.0
// The rules on requests: what is valid, how latencies are rounded and merged, how the tables are
// searched and thinned. Functions of their arguments alone; callers hold the tables' locks, but
// that of last events, which locks itself.
#pragma once

#include <stdint.h>

#include "Conversions.h"
#include "EnableRequestTable.h"
#include "LastEventTable.h"
#include "RequestTables.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Floor and rounding unit of requested latencies.
constexpr int64_t LATENCY_GRANULARITY_NS = 1000000000;
// What a no-wake request asks of the module instead of its own latency: seven days.
constexpr int64_t NO_WAKE_REPORT_LATENCY_NS = 604800000000000;

// The base of ActivityInterface, which has them as members; nobody makes one.
struct RequestRules {
    static bool ValidEventType(uint32_t event);
    // Whole units of LATENCY_GRANULARITY_NS, at least one. Unsigned: a negative latency counts as
    // a huge one.
    static uint64_t RoundNumbers(uint64_t latencyNs);
    // 0 when valid, else -1.
    static int32_t ValidActivityEventExtend(uint32_t event, int32_t pid, const OtherParams& params);
    // Whether the client asks not to be woken: exactly 1.0, 0.0, 0.0, 0.0.
    static bool IsNoWake(const OtherParams& params);
    // The same of a standing request. The name says the opposite of what it answers.
    static bool IsRequestWake(const EnableRequestData& request);
    // The merge: the smallest latency that anybody wants of the pair; 0 when nobody does.
    static int64_t MinReportLatencyNsFunc(uint32_t activity, uint32_t event,
                                          const EnableRequestTable& table);
    // One step of the scan that re-merges a pair: false unless the request at index is of the
    // pair. A request whose first parameter is 0.0 clears allExtended; a no-wake request leaves
    // its parameters in noWakeParams.
    static bool ValidEventActivity(uint32_t index, uint32_t activity, uint32_t event,
                                   bool& allExtended, other_params& noWakeParams,
                                   const EnableRequestTable& table);

    // Lookups: the first match.
    static int32_t FindEnableRequestDataIndex(uint64_t pid, uint32_t activity, uint32_t event,
                                              const EnableRequestTable& table);
    static EnableRequestData FindEnableRequestData(uint64_t pid, uint32_t activity, uint32_t event,
                                                   const EnableRequestTable& table);
    // -1 when the table is empty, but 0 when it holds other pairs only.
    static int32_t FindEnableToNativeDataIndex(uint32_t activity, uint32_t event,
                                               const EnableToNativeTable& table);
    static EnableToNativeData FindEnableToNativeData(uint32_t activity, uint32_t event,
                                                     const EnableToNativeTable& table);
    // True when the pair is absent: the opposite of what the name says.
    static bool FindEnableToNativeDataExist(uint32_t activity, uint32_t event,
                                            const EnableToNativeTable& table);

    // Removals: the first match, if any.
    static void RemoveActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                    EnableRequestTable& table);
    // Without a match the table's first record goes, as the lookup above answers 0.
    static void RemoveEnableToNativeData(uint32_t activity, uint32_t event,
                                         EnableToNativeTable& table);
    static void RemoveFirst(uint64_t pid, uint32_t activity, uint32_t event,
                            FirstReportTable& table);
    static void RemoveLastActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                        LastEventTable& table);
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
