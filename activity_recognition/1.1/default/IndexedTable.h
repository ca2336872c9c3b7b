// SPDX-License-Identifier: Apache-2.0
// A table in insertion order that is also found by key.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <iterator>
#include <list>
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

// A list that also finds the records of a key. Adding, finding and removing cost the same however
// many records stand in it. It keeps insertion order; a record keeps its address while it stands.
//
// KeyOf: a function object from a record to its key, a number or a pair of keys. What the key is
// made of never changes while the record stands in the table. Locks nothing: its owner's lock
// guards the index too.
template <typename Record, typename KeyOf>
class IndexedTable {
  public:
    using Key = decltype(KeyOf()(std::declval<Record>()));

    IndexedTable() = default;
    IndexedTable(IndexedTable&&) = default;  // no copies: their index would lead into this one
    IndexedTable& operator=(IndexedTable&&) = default;

    size_t size() const { return mRecords.size(); }
    bool empty() const { return mRecords.empty(); }
    typename std::list<Record>::const_iterator begin() const { return mRecords.begin(); }
    typename std::list<Record>::const_iterator end() const { return mRecords.end(); }

    Record& push_back(const Record& record) {
        mRecords.push_back(record);
        mIndex[KeyOf()(record)].push_back(std::prev(mRecords.end()));
        ++mChanges;
        return mRecords.back();
    }

    // The key's first record, or NULL.
    Record* first(const Key& key) {
        const auto found = mIndex.find(key);
        return found == mIndex.end() ? nullptr : &*found->second.front();
    }
    const Record* first(const Key& key) const {
        return const_cast<IndexedTable*>(this)->first(key);
    }

    // Removes the key's first record that is one for fits; false when there is none.
    template <typename Fits>
    bool erase(const Key& key, const Fits& fits) {
        const auto found = mIndex.find(key);
        if (found == mIndex.end()) return false;
        auto& places = found->second;
        const auto place =
                std::find_if(places.begin(), places.end(), [&fits](Place at) { return fits(*at); });
        if (place == places.end()) return false;
        mRecords.erase(*place);
        places.erase(place);
        if (places.empty()) mIndex.erase(found);
        ++mChanges;
        return true;
    }
    bool erase(const Key& key) {
        return erase(key, [](const Record&) { return true; });
    }

    void clear() {
        mRecords.clear();
        mIndex.clear();
        ++mChanges;
    }

    // Grows with every change: what was looked up holds as long as this stands.
    uint64_t changes() const { return mChanges; }

  private:
    using Place = typename std::list<Record>::iterator;

    std::list<Record> mRecords;
    std::unordered_map<Key, std::vector<Place>, KeyHash> mIndex;
    uint64_t mChanges = 0;
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
