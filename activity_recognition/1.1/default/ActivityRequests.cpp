#include "ActivityInterface.h"
#include "NativeParams.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
namespace {

template <typename Record>
bool IsOfPair(const Record& record, uint32_t activity, uint32_t event) {
    return record.activity == activity && record.event == event;
}

template <typename Record>
bool IsOf(const Record& record, uint64_t pid, uint32_t activity, uint32_t event) {
    return record.pid == pid && IsOfPair(record, activity, event);
}

// Walks: these run once per client call, and leave the index to delivery.
template <typename Table>
int32_t IndexOf(const Table& table, uint64_t pid, uint32_t activity, uint32_t event) {
    for (size_t i = 0; i < table.size(); ++i) {
        if (IsOf(table[i], pid, activity, event)) return static_cast<int32_t>(i);
    }
    return -1;
}

template <typename Table>
void RemoveFirstOf(Table& table, uint64_t pid, uint32_t activity, uint32_t event) {
    const int32_t index = IndexOf(table, pid, activity, event);
    if (index >= 0) table.erase(index);
}

bool IsNoWakePattern(const double* params) {
    return params[0] == 1.0 && params[1] == 0.0 && params[2] == 0.0 && params[3] == 0.0;
}

}  // namespace

bool ActivityInterface::ValidEventType(uint32_t event) {
    return event - 1 < 2;
}

uint64_t ActivityInterface::RoundNumbers(uint64_t latencyNs) {
    const uint64_t unit = LATENCY_GRANULARITY_NS;
    return latencyNs < unit ? unit : latencyNs / unit * unit;
}

int32_t ActivityInterface::ValidActivityEventExtend(uint32_t event, int32_t pid,
                                                    const OtherParams& params) {
    return ValidEventType(event) && pid != -1 && NameFits(params) ? 0 : -1;
}

bool ActivityInterface::IsNoWake(const OtherParams& params) {
    return IsNoWakePattern(params.params.data());
}

bool ActivityInterface::IsRequestWake(const EnableRequestData& request) {
    return IsNoWakePattern(request.otherParams.params);
}

int64_t ActivityInterface::MinReportLatencyNsFunc(uint32_t activity, uint32_t event,
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

bool ActivityInterface::ValidEventActivity(uint32_t index, uint32_t activity, uint32_t event,
                                           bool& allExtended, other_params& noWakeParams) {
    if (index >= mEventData.size() || !IsOfPair(mEventData[index], activity, event)) return false;
    const EnableRequestData& request = mEventData[index];
    if (request.otherParams.params[0] == 0.0) {
        allExtended = false;
    } else if (IsRequestWake(request)) {
        noWakeParams = request.otherParams;
    }
    return true;
}

int32_t ActivityInterface::FindEnableRequestDataIndex(uint64_t pid, uint32_t activity,
                                                      uint32_t event,
                                                      const EnableRequestTable& table) {
    return IndexOf(table, pid, activity, event);
}

EnableRequestData ActivityInterface::FindEnableRequestData(uint64_t pid, uint32_t activity,
                                                           uint32_t event,
                                                           const EnableRequestTable& table) {
    const int32_t index = IndexOf(table, pid, activity, event);
    return index < 0 ? EnableRequestData{} : table[index];
}

int32_t ActivityInterface::FindEnableToNativeDataIndex(
        uint32_t activity, uint32_t event, const std::vector<EnableToNativeData>& table) {
    if (table.empty()) return -1;
    for (size_t i = 0; i < table.size(); ++i) {
        if (IsOfPair(table[i], activity, event)) return static_cast<int32_t>(i);
    }
    return 0;
}

EnableToNativeData ActivityInterface::FindEnableToNativeData(
        uint32_t activity, uint32_t event, const std::vector<EnableToNativeData>& table) {
    for (const EnableToNativeData& record : table) {
        if (IsOfPair(record, activity, event)) return record;
    }
    return {};
}

bool ActivityInterface::FindEnableToNativeDataExist(uint32_t activity, uint32_t event,
                                                    const std::vector<EnableToNativeData>& table) {
    for (const EnableToNativeData& record : table) {
        if (IsOfPair(record, activity, event)) return false;
    }
    return true;
}

void ActivityInterface::RemoveActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                            EnableRequestTable& table) {
    RemoveFirstOf(table, pid, activity, event);
}

void ActivityInterface::RemoveEnableToNativeData(uint32_t activity, uint32_t event,
                                                 std::vector<EnableToNativeData>& table) {
    const int32_t index = FindEnableToNativeDataIndex(activity, event, table);
    if (index >= 0) table.erase(table.begin() + index);
}

void ActivityInterface::RemoveFirst(uint64_t pid, uint32_t activity, uint32_t event) {
    RemoveFirstOf(firstReport, pid, activity, event);
}

void ActivityInterface::RemoveLastActivityEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                                LastEventTable& table) {
    RemoveFirstOf(table, pid, activity, event);
}

int64_t ActivityInterface::GetLastTime(uint64_t pid, uint32_t activity, uint32_t event) {
    const ssize_t index = firstReport.firstOf({pid, activity, event});
    return index < 0 ? 0 : firstReport[index].timestamp;
}

bool ActivityInterface::CheckRepeatedEvent(uint64_t pid, uint32_t activity, uint32_t event,
                                           uint64_t timestamp, LastEventTable& table) {
    const ssize_t index = table.firstOf({pid, activity, 0});
    if (index >= 0) {
        table[index].event = event;
    } else {
        table.push_back({pid, activity, event, static_cast<int64_t>(timestamp), {}, 0});
    }
    return true;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
