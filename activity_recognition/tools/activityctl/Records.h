// SPDX-License-Identifier: Apache-2.0
// Events of both interface versions in one form, and that form as text and as JSON.
#pragma once

#include <vendor/zaltho/hardware/activity_recognition/1.0/types.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/types.h>

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace activityctl {

class Output;

namespace V1_0 = ::vendor::zaltho::hardware::activity_recognition::V1_0;
namespace V1_1 = ::vendor::zaltho::hardware::activity_recognition::V1_1;

struct Payload {
    uint32_t value;
    std::array<uint64_t, 4> contextData;
    std::string name;
};

struct Record {
    uint32_t eventType;
    uint32_t id;                     // activity or environment
    int64_t timestamp;               // the native module's clock
    std::optional<uint32_t> extra;   // version 1.1 only
    std::optional<Payload> payload;  // all but plain activity events
};

Record toRecord(const V1_0::ActivityEvent& event);
Record toRecord(const V1_0::ActivityEventExtend& event);
Record toRecord(const V1_1::ActivityEventV1_1& event);
Record toRecord(const V1_1::ActivityEventExtendV1_1& event);

template <typename Events>
std::vector<Record> toRecords(const Events& events) {
    std::vector<Record> records;
    records.reserve(events.size());
    for (const auto& event : events) records.push_back(toRecord(event));
    return records;
}

// names: the service's list, where an id's text is found; noun: the key of the id.
nlohmann::json toJson(const Record& record, const char* noun,
                      const std::vector<std::string>& names);
std::string toText(const Record& record, const std::vector<std::string>& names,
                   const Output& output);

// "walking", printable, or the number where the list has no such position.
std::string nameOf(uint32_t id, const std::vector<std::string>& names);

}  // namespace activityctl
