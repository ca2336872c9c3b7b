// SPDX-License-Identifier: Apache-2.0
#include "EnableRequestTable.h"
#include "RequestRules.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

bool IsPlain(const EnableRequestData& request) {
    return request.otherParams.params[0] == 0.0;
}

template <typename List, typename Pointer>
typename List::iterator Append(List& list, Pointer pointer) {
    return list.insert(list.end(), pointer);
}

}  // namespace

void EnableRequestTable::push_back(const EnableRequestData& request, int64_t askedNs) {
    Standing& standing = mRecords.push_back(Standing(request, askedNs));
    Pair& pair = mPairs[PairOf()(request)];
    pair.key = PairOf()(request);
    pair.plan = nullptr;
    standing.inPair = Append(pair.requests, &standing);
    ++pair.latencies[request.reportLatencyNs];
    if (IsPlain(request)) ++pair.plain;
    if (RequestRules::IsRequestWake(request)) standing.inNoWakes = Append(pair.noWakes, &standing);
    standing.inClient = Append(mClients[request.pid], &standing);
}

void EnableRequestTable::erase(Standing* standing) {
    const auto client = mClients.find(standing->pid);
    client->second.erase(standing->inClient);
    if (client->second.empty()) mClients.erase(client);

    const PairKey key = PairOf()(*standing);
    Pair& pair = mPairs.find(key)->second;
    pair.plan = nullptr;
    pair.requests.erase(standing->inPair);
    const auto latency = pair.latencies.find(standing->reportLatencyNs);
    if (--latency->second == 0) pair.latencies.erase(latency);
    if (IsPlain(*standing)) --pair.plain;
    if (RequestRules::IsRequestWake(*standing)) pair.noWakes.erase(standing->inNoWakes);
    if (pair.requests.empty()) mPairs.erase(key);
    mRecords.erase(ClientPairOf()(*standing),
                   [standing](const Standing& other) { return &other == standing; });
}

bool EnableRequestTable::erase(uint64_t pid, uint32_t activity, uint32_t event) {
    Standing* const standing = mRecords.first({pid, {activity, event}});
    if (standing != nullptr) erase(standing);
    return standing != nullptr;
}

void EnableRequestTable::eraseClient(uint64_t pid) {
    for (auto of = mClients.find(pid); of != mClients.end(); of = mClients.find(pid)) {
        erase(of->second.front());
    }
}

void EnableRequestTable::clear() {
    while (!mClients.empty()) eraseClient(mClients.begin()->first);
}

EnableRequestTable::Pair* EnableRequestTable::find(const PairKey& key) {
    const auto found = mPairs.find(key);
    return found == mPairs.end() ? nullptr : &found->second;
}

EnableRequestTable::Merge EnableRequestTable::merge(uint32_t activity, uint32_t event) const {
    Merge merge;
    const auto found = mPairs.find({activity, event});
    if (found == mPairs.end()) return merge;
    const Pair& pair = found->second;
    merge.remains = true;
    merge.latencyNs = pair.latencies.begin()->first;
    merge.allExtended = pair.plain == 0;
    if (!pair.noWakes.empty()) merge.noWakeParams = pair.noWakes.back()->otherParams;
    return merge;
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
