// A table in insertion order that is also found by key.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Hashes numbers and nested pairs of them. The factor is 2^64 over the golden ratio: it spreads
// neighbouring numbers.
struct KeyHash {
    size_t operator()(uint64_t number) const {
        const uint64_t spread = number * 0x9e3779b97f4a7c15;
        return spread ^ (spread >> 32);
    }
    template <typename First, typename Second>
    size_t operator()(const std::pair<First, Second>& key) const {
        return (*this)((*this)(key.first) * 31 + (*this)(key.second));
    }
};

// A vector that also finds the records of a key without walking the others. It keeps insertion
// order; a removal closes the gap. The index is built by the first look-up after a removal, so
// requests between two deliveries pay for a vector only.
//
// KeyOf: a function object from a record to its key, a number or a pair of keys. What the key is
// made of never changes while the record stands in the table. Locks nothing: its owner's lock
// guards the index too.
template <typename Record, typename KeyOf>
class IndexedTable {
  public:
    using Key = decltype(KeyOf()(std::declval<Record>()));

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

    // Removes every record that drop answers true for, keeping the order of the others.
    template <typename Drop>
    void eraseIf(const Drop& drop) {
        mRecords.erase(std::remove_if(mRecords.begin(), mRecords.end(), drop), mRecords.end());
        dropIndex();
    }

    void clear() {
        mRecords.clear();
        dropIndex();
    }

    // Where the records of the key stand, ascending. Valid until the table changes.
    const std::vector<uint32_t>& positionsOf(const Key& key) {
        static const std::vector<uint32_t> kNone;
        if (!mIndexed) makeIndex();
        const auto found = mIndex.find(key);
        return found == mIndex.end() ? kNone : found->second;
    }

    // Where the first record of the key stands, or -1.
    ssize_t firstOf(const Key& key) {
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
    std::unordered_map<Key, std::vector<uint32_t>, KeyHash> mIndex;
    bool mIndexed = false;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
