#include "RequestRules.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

template <typename Record>
bool IsOfPair(const Record& record, uint32_t activity, uint32_t event) {
    return record.activity == activity && record.event == event;
}

// Walks: each of these calls changes the table, and a look-up by key would build the index for one
// use.
template <typename Table>
int32_t IndexOf(const Table& table, uint64_t pid, uint32_t activity, uint32_t event) {
    for (size_t i = 0; i < table.size(); ++i) {
        if (table[i].pid == pid && IsOfPair(table[i], activity, event)) return int32_t(i);
    }
    return -1;
}

template <typename Table>
void RemoveFirstOf(Table& table, uint64_t pid, uint32_t activity, uint32_t event) {
    const int32_t index = IndexOf(table, pid, activity, event);
    if (index >= 0) table.erase(index);
}

const EnableToNativeData* Find(const EnableToNativeTable& table, uint32_t activity,
                               uint32_t event) {
    for (const EnableToNativeData& record : table) {
        if (IsOfPair(record, activity, event)) return &record;
    }
    return nullptr;
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
    int64_t latencyNs = 0;
    bool wanted = false;
    for (const EnableRequestData& request : table) {
        if (!IsOfPair(request, activity, event)) continue;
        if (!wanted || request.reportLatencyNs < latencyNs) latencyNs = request.reportLatencyNs;
        wanted = true;
    }
    return latencyNs;
}

bool RequestRules::ValidEventActivity(uint32_t index, uint32_t activity, uint32_t event,
                                      bool& allExtended, other_params& noWakeParams,
                                      const EnableRequestTable& table) {
    if (index >= table.size() || !IsOfPair(table[index], activity, event)) return false;
    const EnableRequestData& request = table[index];
    if (request.otherParams.params[0] == 0.0) {
        allExtended = false;
    } else if (IsRequestWake(request)) {
        noWakeParams = request.otherParams;
    }
    return true;
}

int32_t RequestRules::FindEnableRequestDataIndex(uint64_t pid, uint32_t activity, uint32_t event,
                                                 const EnableRequestTable& table) {
    return IndexOf(table, pid, activity, event);
}

EnableRequestData RequestRules::FindEnableRequestData(uint64_t pid, uint32_t activity,
                                                      uint32_t event,
                                                      const EnableRequestTable& table) {
    const int32_t index = IndexOf(table, pid, activity, event);
    return index < 0 ? EnableRequestData{} : table[index];
}

int32_t RequestRules::FindEnableToNativeDataIndex(uint32_t activity, uint32_t event,
                                                  const EnableToNativeTable& table) {
    if (table.empty()) return -1;
    const EnableToNativeData* found = Find(table, activity, event);
    return found == nullptr ? 0 : static_cast<int32_t>(found - table.data());
}

EnableToNativeData RequestRules::FindEnableToNativeData(uint32_t activity, uint32_t event,
                                                        const EnableToNativeTable& table) {
    const EnableToNativeData* found = Find(table, activity, event);
    return found == nullptr ? EnableToNativeData{} : *found;
}

bool RequestRules::FindEnableToNativeDataExist(uint32_t activity, uint32_t event,
                                               const EnableToNativeTable& table) {
    return Find(table, activity, event) == nullptr;
}

void RequestRules::RemoveActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                       EnableRequestTable& table) {
    RemoveFirstOf(table, pid, activity, event);
}

void RequestRules::RemoveEnableToNativeData(uint32_t activity, uint32_t event,
                                            EnableToNativeTable& table) {
    const int32_t index = FindEnableToNativeDataIndex(activity, event, table);
    if (index >= 0) table.erase(table.begin() + index);
}

void RequestRules::RemoveFirst(uint64_t pid, uint32_t activity, uint32_t event,
                               FirstReportTable& table) {
    RemoveFirstOf(table, pid, activity, event);
}

void RequestRules::RemoveLastActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                           LastEventTable& table) {
    RemoveFirstOf(table, pid, activity, event);
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
