// SPDX-License-Identifier: Apache-2.0
// What the dump copies of a side, each table under its own lock and all of it one after the other:
// calls get in between.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <utility>
#include <vector>

#include "Counters.h"
#include "EnablementHistory.h"
#include "RequestTables.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

struct ClientState {
    const char* version;
    uint64_t pid;
    ClientCalls calls;
};

struct RequestState {
    EnableRequestData request;
    int64_t askedNs;
};

// What a lock guards that could not be had is left out, and `held` names it.
struct CommonState {
    std::vector<const char*> held;
    bool hasClients = false;
    std::vector<ClientState> clients;
    bool hasShared = false;
    bool shared = false;  // the recipient that registrations share has been made
};

struct ActivityState : CommonState {
    size_t reportList = 0;  // with the clients
    bool hasRequests = false;
    std::vector<RequestState> requests;
    std::vector<FirstReport> barriers;
    bool hasNative = false;
    std::vector<EnableToNativeData> recorded;
    std::vector<std::pair<PairKey, Told>> told;
    bool hasLastEvents = false;
    size_t lastEvents = 0;
    bool hasOwn = false;
    std::vector<uint64_t> own;  // processes that registered the recipients of one registration
    std::vector<Attempt> history;
};

// Copies the clients of one table, whose lock is held.
template <typename Table>
void CopyClients(const Table& table, const char* version, CommonState* state) {
    for (size_t i = 0; i < table.size(); ++i) {
        const ClientCalls* calls = table.callsAt(i);
        state->clients.push_back(
                {version, table.valueAt(i), calls == nullptr ? ClientCalls() : *calls});
    }
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
