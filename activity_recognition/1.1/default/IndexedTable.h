// The tables that delivery looks into for every record.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <unordered_map>
#include <vector>

#include "Records.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
// What delivery finds records by. Fields that a table's key leaves out are 0.
struct RecordKey {
    uint64_t pid;
    uint32_t activity;
    uint32_t event;

    bool operator==(const RecordKey& other) const {
        return pid == other.pid && activity == other.activity && event == other.event;
    }
};

struct RecordKeyHash {
    size_t operator()(const RecordKey& key) const {
        uint64_t mixed = key.pid * 0x9e3779b97f4a7c15;
        mixed ^= ((uint64_t(key.activity) << 32) | key.event) * 0xc2b2ae3d27d4eb4f;
        return mixed ^ (mixed >> 32);
    }
};

// A vector that also finds the records of a key without walking the others. It keeps insertion
// order; a removal closes the gap. The index is made when it is asked for: appending keeps it,
// removing drops it. So a table that only clients' requests touch costs no more than a vector.
//
// KeyOf: a function object from a record to its RecordKey. A record's key fields never change
// while it stands in the table. Locks nothing: its owner's lock guards the index too.
template <typename Record, typename KeyOf>
class IndexedTable {
  public:
    size_t size() const { return mRecords.size(); }
    bool empty() const { return mRecords.empty(); }
    Record& operator[](size_t index) { return mRecords[index]; }
    const Record& operator[](size_t index) const { return mRecords[index]; }
    typename std::vector<Record>::const_iterator begin() const { return mRecords.begin(); }
    typename std::vector<Record>::const_iterator end() const { return mRecords.end(); }

    void push_back(const Record& record) {
        if (mIndexed) mIndex[KeyOf()(record)].push_back(mRecords.size());
        mRecords.push_back(record);
    }

    void erase(size_t index) {
        mRecords.erase(mRecords.begin() + index);
        dropIndex();
    }

    // Removes every record of a client, keeping the order of the others.
    void eraseClient(uint64_t pid) {
        size_t kept = 0;
        for (const Record& record : mRecords) {
            if (record.pid != pid) mRecords[kept++] = record;
        }
        mRecords.resize(kept);
        dropIndex();
    }

    void clear() {
        mRecords.clear();
        dropIndex();
    }

    // Where the records of the key stand, ascending. Valid until the table changes.
    const std::vector<uint32_t>& positionsOf(const RecordKey& key) {
        static const std::vector<uint32_t> kNone;
        if (!mIndexed) makeIndex();
        const auto found = mIndex.find(key);
        return found == mIndex.end() ? kNone : found->second;
    }

    // Where the first record of the key stands, or -1.
    ssize_t firstOf(const RecordKey& key) {
        const std::vector<uint32_t>& positions = positionsOf(key);
        return positions.empty() ? -1 : static_cast<ssize_t>(positions.front());
    }

  private:
    void makeIndex() {
        for (size_t i = 0; i < mRecords.size(); ++i) mIndex[KeyOf()(mRecords[i])].push_back(i);
        mIndexed = true;
    }
    void dropIndex() {
        mIndex.clear();
        mIndexed = false;
    }

    std::vector<Record> mRecords;
    std::unordered_map<RecordKey, std::vector<uint32_t>, RecordKeyHash> mIndex;
    bool mIndexed = false;
};

struct KeyByPair {
    RecordKey operator()(const EnableRequestData& r) const { return {0, r.activity, r.event}; }
};
struct KeyByClientAndPair {
    RecordKey operator()(const FirstReport& r) const { return {r.pid, r.activity, r.event}; }
};
struct KeyByClientAndActivity {
    RecordKey operator()(const EventResponseData& r) const { return {r.pid, r.activity, 0}; }
};
struct KeyByClient {
    RecordKey operator()(uint64_t pid) const { return {pid, 0, 0}; }
};

using EnableRequestTable = IndexedTable<EnableRequestData, KeyByPair>;
using FirstReportTable = IndexedTable<FirstReport, KeyByClientAndPair>;
using LastEventTable = IndexedTable<EventResponseData, KeyByClientAndActivity>;
using ClientList = IndexedTable<uint64_t, KeyByClient>;

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
