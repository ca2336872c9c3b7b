// SPDX-License-Identifier: Apache-2.0
#include "RequestRules.h"

#include <iterator>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

// Of a record that stands in the table, or -1 for NULL.
template <typename Table, typename Record>
int32_t IndexOf(const Table& table, const Record* record) {
    if (record == nullptr) return -1;
    int32_t index = 0;
    for (auto at = table.begin(); &*at != record; ++at) ++index;
    return index;
}

bool IsNoWakePattern(const double* params) {
    return params[0] == 1.0 && params[1] == 0.0 && params[2] == 0.0 && params[3] == 0.0;
}

}  // namespace

bool RequestRules::ValidEventType(uint32_t event) {
    return event - 1 < 2;
}

uint64_t RequestRules::RoundNumbers(uint64_t latencyNs) {
    const uint64_t unit = LATENCY_GRANULARITY_NS;
    return latencyNs < unit ? unit : latencyNs / unit * unit;
}

int32_t RequestRules::ValidActivityEventExtend(uint32_t event, int32_t pid,
                                               const OtherParams& params) {
    return ValidEventType(event) && pid != -1 && NameFits(params) ? 0 : -1;
}

bool RequestRules::IsNoWake(const OtherParams& params) {
    return IsNoWakePattern(params.params.data());
}

bool RequestRules::IsRequestWake(const EnableRequestData& request) {
    return IsNoWakePattern(request.otherParams.params);
}

int64_t RequestRules::MinReportLatencyNsFunc(uint32_t activity, uint32_t event,
                                             const EnableRequestTable& table) {
    return table.merge(activity, event).latencyNs;
}

bool RequestRules::ValidEventActivity(uint32_t index, uint32_t activity, uint32_t event,
                                      bool& allExtended, other_params& noWakeParams,
                                      const EnableRequestTable& table) {
    if (index >= table.size()) return false;
    const EnableRequestData& request = *std::next(table.begin(), index);
    if (PairOf()(request) != PairKey{activity, event}) return false;
    if (request.otherParams.params[0] == 0.0) {
        allExtended = false;
    } else if (IsRequestWake(request)) {
        noWakeParams = request.otherParams;
    }
    return true;
}

int32_t RequestRules::FindEnableRequestDataIndex(uint64_t pid, uint32_t activity, uint32_t event,
                                                 const EnableRequestTable& table) {
    return IndexOf(table, table.first(pid, activity, event));
}

EnableRequestData RequestRules::FindEnableRequestData(uint64_t pid, uint32_t activity,
                                                      uint32_t event,
                                                      const EnableRequestTable& table) {
    const EnableRequestData* const found = table.first(pid, activity, event);
    return found == nullptr ? EnableRequestData{} : *found;
}

int32_t RequestRules::FindEnableToNativeDataIndex(uint32_t activity, uint32_t event,
                                                  const EnableToNativeTable& table) {
    if (table.empty()) return -1;
    const EnableToNativeData* const found = table.first({activity, event});
    return found == nullptr ? 0 : IndexOf(table, found);
}

EnableToNativeData RequestRules::FindEnableToNativeData(uint32_t activity, uint32_t event,
                                                        const EnableToNativeTable& table) {
    const EnableToNativeData* const found = table.first({activity, event});
    return found == nullptr ? EnableToNativeData{} : *found;
}

bool RequestRules::FindEnableToNativeDataExist(uint32_t activity, uint32_t event,
                                               const EnableToNativeTable& table) {
    return table.first({activity, event}) == nullptr;
}

void RequestRules::RemoveActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                       EnableRequestTable& table) {
    table.erase(pid, activity, event);
}

void RequestRules::RemoveEnableToNativeData(uint32_t activity, uint32_t event,
                                            EnableToNativeTable& table) {
    if (!table.erase({activity, event}) && !table.empty()) table.erase(PairOf()(*table.begin()));
}

void RequestRules::RemoveFirst(uint64_t pid, uint32_t activity, uint32_t event,
                               FirstReportTable& table) {
    table.erase({pid, {activity, event}});
}

void RequestRules::RemoveLastActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                           LastEventTable& table) {
    table.erase(pid, activity, event);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
