// SPDX-License-Identifier: Apache-2.0
// The standing requests of all clients, and what enabling, disabling, merging, dying and delivering
// need to know of them.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <map>
#include <memory>
#include <unordered_map>

#include "IndexedTable.h"
#include "RequestTables.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

struct DeliveryPlan;

// Requests in the order in which they were made, of all clients and of each pair. Nothing that is
// asked costs more when other requests stand in the table; a pair's merge is kept up to date by
// every change instead of being walked for. Locks nothing.
class EnableRequestTable {
  public:
    using Requests = std::list<const EnableRequestData*>;

    // A pair that somebody wants. It keeps its address until its last request goes.
    struct Pair {
        PairKey key;
        Requests requests;                    // in the table's order; never empty
        std::map<int64_t, size_t> latencies;  // how many want each, the smallest first
        size_t plain = 0;                     // requests whose first parameter is 0.0
        Requests noWakes;                     // those of the no-wake pattern, in the table's order

        std::shared_ptr<DeliveryPlan> plan;  // delivery's own; any change of requests drops it
    };

    // What a re-enable of the pair needs.
    struct Merge {
        bool remains = false;            // somebody wants the pair; if not:
        int64_t latencyNs = 0;           // the smallest that anybody wants; 0
        bool allExtended = true;         // nobody's first parameter is 0.0; true
        other_params noWakeParams = {};  // of the last no-wake request; zero without one
    };

    EnableRequestTable() = default;
    EnableRequestTable(EnableRequestTable&&) =
            default;  // no copies: they would point into this one

    size_t size() const { return mRecords.size(); }
    bool empty() const { return mRecords.empty(); }
    auto begin() const { return mRecords.begin(); }
    auto end() const { return mRecords.end(); }

    // askedNs: the latency that the client named, which is kept to be shown.
    void push_back(const EnableRequestData& request, int64_t askedNs = 0);
    // Removes the client's first request for the pair; false when there is none.
    bool erase(uint64_t pid, uint32_t activity, uint32_t event);
    // Removes all requests of a client.
    void eraseClient(uint64_t pid);
    void clear();

    // The client's first request for the pair, or NULL.
    const EnableRequestData* first(uint64_t pid, uint32_t activity, uint32_t event) const {
        return mRecords.first({pid, {activity, event}});
    }
    Merge merge(uint32_t activity, uint32_t event) const;
    // NULL when nobody wants the pair.
    Pair* find(const PairKey& key);
    // Grows with every change: what was found holds as long as this stands.
    uint64_t changes() const { return mRecords.changes(); }

  private:
    struct Standing;
    using Standings = std::list<Standing*>;
    struct Standing : EnableRequestData {
        Standing(const EnableRequestData& request, int64_t asked)
            : EnableRequestData(request), askedNs(asked) {}
        int64_t askedNs;
        Requests::iterator inPair, inNoWakes;
        Standings::iterator inClient;
    };

    void erase(Standing* standing);
    IndexedTable<Standing, ClientPairOf> mRecords;
    std::unordered_map<PairKey, Pair, KeyHash> mPairs;
    std::unordered_map<uint64_t, Standings, KeyHash> mClients;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
