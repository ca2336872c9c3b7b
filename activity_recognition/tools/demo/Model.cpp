// SPDX-License-Identifier: Apache-2.0
#include "Model.h"

#include <algorithm>

namespace demo {

void Model::addClient(const std::string& name, Side side, bool version11, int32_t pid) {
    const Client& client = mClients[name] = {side, pid, ++mObjects, {}};
    if (side == Side::kActivity) {
        version11 ? mActivity.registerV1_1(pid, client.callback)
                  : mActivity.registerV1_0(pid, client.callback);
    } else {
        version11 ? mEnvironment.registerV1_1(pid, client.callback)
                  : mEnvironment.registerV1_0(pid, client.callback);
    }
}

void Model::removeClient(const std::string& name) {
    const Client& client = mClients.at(name);
    const uint64_t cookie = client.pid;
    const ar_model::Who who{client.callback, true};
    client.side == Side::kActivity ? mActivity.died(cookie, who) : mEnvironment.died(cookie, who);
}

void Model::enable(const std::string& name, uint32_t id, uint32_t eventType, int64_t latencyNs,
                   const std::optional<ar_model::Params>& params) {
    const Client& client = mClients.at(name);
    if (client.side == Side::kEnvironment) {
        mEnvironment.enable(id, eventType, latencyNs, {});
    } else if (params) {
        mActivity.enableExtended(client.pid, id, eventType, latencyNs, *params);
    } else {
        mActivity.enable(client.pid, id, eventType, latencyNs);
    }
}

void Model::disable(const std::string& name, uint32_t id, uint32_t eventType) {
    const Client& client = mClients.at(name);
    if (client.side == Side::kEnvironment) {
        mEnvironment.disable(id, eventType);
    } else {
        mActivity.disable(client.pid, id, eventType);
    }
}

void Model::play(const std::string& stage) {
    for (const ScenarioRecord& record : mScenario.stages.at(stage)) {
        const char* const slot = record.kind == Kind::kActivity   ? "activity_changed"
                                 : record.kind == Kind::kExtended ? "activity_extend_changed"
                                                                  : "environment_changed";
        if (mEnabled[slot].count({record.id, record.eventType}) == 0) continue;
        mReports[slot].push_back({stage, &record});
    }
}

void Model::deliver(const nlohmann::json& batch) {
    std::vector<ar_model::Event> events;
    for (const auto& event : batch.at("events")) {
        events.push_back({event.at("event_type"), event.at("activity"), event.at("timestamp"),
                          event.at("extra"), event.value("value", 0u),
                          event.value("context_data", std::array<uint64_t, 4>{}),
                          event.value("name", "")});
    }
    const int32_t count = int32_t(events.size());
    const std::string slot = batch.at("native");
    if (slot == "activity_extend_changed") return mActivity.extendChanged(events.data(), count);
    if (slot == "environment_changed") return mEnvironment.changed(events.data(), count);

    std::set<ptrdiff_t> askers;  // nobody, one, several
    for (const auto& event : events) {
        const auto asks = [&](const ar_model::Request& request) {
            return request.activity == event.activity && request.event == event.type;
        };
        const auto& requests = mActivity.requests;
        askers.insert(
                std::min<ptrdiff_t>(std::count_if(requests.begin(), requests.end(), asks), 2));
    }
    mSawMixedBatch = mSawMixedBatch || askers.size() == 3;
    // No client is the delivering process, so none has a barrier that counts.
    mActivity.changed(0, events.data(), count);
}

int32_t Model::call(const ar_model::NativeCall& call) {
    const std::string slot = call.slot;
    const bool environment = slot.find("environment") != std::string::npos;
    nlohmann::json line{{"native", slot}, {"result", 0}};
    if (call.id) line[environment ? "environment" : "activity"] = *call.id;
    if (call.event) line["event_type"] = *call.event;
    if (call.latencyNs) line["latency_ns"] = *call.latencyNs;
    if (call.params) {
        line["params"] = call.params->numbers;
        line["name"] = call.params->name;
    }
    mNativeCalls.push_back(std::move(line));

    const std::pair pair{call.id.value_or(0), call.event.value_or(0)};
    if (slot == "enable_environment") mEnabled["environment_changed"].insert(pair);
    if (slot == "disable_environment") mEnabled["environment_changed"].erase(pair);
    if (slot.find("enable_activity_event") == 0) mEnabled["activity_changed"].insert(pair);
    if (slot == "enable_activity_event_extend") mEnabled["activity_extend_changed"].insert(pair);
    if (slot == "disable_activity_event") {
        mEnabled["activity_changed"].erase(pair);
        mEnabled["activity_extend_changed"].erase(pair);
    }
    return 0;
}

ar_model::Snapshot Model::currentActivity() {
    mNativeCalls.push_back({{"native", "get_current_activity"}});
    return {};  // no barrier here counts
}

bool Model::deliver(ar_model::Callback to, const std::string& method,
                    const std::vector<ar_model::Event>& events) {
    nlohmann::json list = nlohmann::json::array();
    const bool environment = method.find("Environment") != std::string::npos;
    for (const ar_model::Event& event : events) {
        nlohmann::json object{{"event_type", event.type},
                              {environment ? "environment" : "activity", event.activity},
                              {"timestamp", event.timestamp}};
        if (method.find("V1_1") != std::string::npos) object["extra"] = event.extra;
        if (method.find("onActivityChanged") != 0) {
            object["value"] = event.value;
            object["context_data"] = event.data;
            object["name"] = event.name;
        }
        list.push_back(std::move(object));
    }
    for (auto& [name, client] : mClients) {
        if (client.callback != to) continue;
        client.deliveries.push_back({{"what", method}, {"events", list}});
    }
    return true;
}

}  // namespace demo
