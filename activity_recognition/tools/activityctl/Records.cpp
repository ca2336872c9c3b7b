// SPDX-License-Identifier: Apache-2.0
#include "Records.h"

#include <fmt/format.h>

#include "Output.h"
#include "Text.h"

namespace activityctl {
namespace {

template <typename Event>
Payload payloadOf(const Event& event) {
    Payload payload{event.value, {}, event.name};
    for (size_t i = 0; i < payload.contextData.size(); ++i) {
        payload.contextData[i] = event.contextData[i];
    }
    return payload;
}

}  // namespace

Record toRecord(const V1_0::ActivityEvent& event) {
    return {event.eventType, event.activity, event.timestamp, {}, {}};
}

Record toRecord(const V1_0::ActivityEventExtend& event) {
    return {event.eventType, event.activity, event.timestamp, {}, payloadOf(event)};
}

Record toRecord(const V1_1::ActivityEventV1_1& event) {
    return {event.eventType, event.activity, event.timestamp, event.extra, {}};
}

Record toRecord(const V1_1::ActivityEventExtendV1_1& event) {
    return {event.eventType, event.activity, event.timestamp, event.extra, payloadOf(event)};
}

std::string nameOf(uint32_t id, const std::vector<std::string>& names) {
    return id < names.size() ? printable(names[id]) : fmt::format("{}", id);
}

nlohmann::json toJson(const Record& record, const char* noun,
                      const std::vector<std::string>& names) {
    nlohmann::json json{
            {"event_type", record.eventType}, {noun, record.id}, {"timestamp", record.timestamp}};
    if (record.id < names.size()) json[std::string(noun) + "_name"] = names[record.id];
    if (record.extra) json["extra"] = *record.extra;
    if (record.payload) {
        json["value"] = record.payload->value;
        json["context_data"] = record.payload->contextData;
        json["name"] = record.payload->name;
    }
    return json;
}

std::string toText(const Record& record, const std::vector<std::string>& names,
                   const Output& output) {
    const std::string pair = fmt::format("{}:{}", nameOf(record.id, names), record.eventType);
    std::string text =
            fmt::format("{} timestamp {}", output.bold(pair), output.timestamp(record.timestamp));
    if (record.extra) text += fmt::format(" extra {}", *record.extra);
    if (record.payload) {
        text += fmt::format(" value {} name '{}' data {}", record.payload->value,
                            printable(record.payload->name),
                            fmt::join(record.payload->contextData, ","));
    }
    return text;
}

}  // namespace activityctl
