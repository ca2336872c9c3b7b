// SPDX-License-Identifier: Apache-2.0
#include "Model.h"

#include <algorithm>

namespace demo {

void Model::addClient(const std::string& name, Side side, bool version11, int32_t pid) {
    const Client& client = mClients[name] = {side, pid, ++mObjects, {}, {}};
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
    ++mDeaths[client.side];
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
        mReports[slot].push_back({&record, mPassedNs + record.offsetNs});
    }
}

void Model::deliver(const nlohmann::json& batch) {
    mBatchTime = batch.at("t");
    std::vector<ar_model::Event> events;
    for (const auto& event : batch.at("events")) {
        events.push_back({event.at("event_type"), event.at("activity"), event.at("timestamp"),
                          event.at("extra"), event.value("value", 0u),
                          event.value("context_data", std::array<uint64_t, 4>{}),
                          event.value("name", "")});
    }
    const int32_t count = int32_t(events.size());
    const std::string slot = batch.at("native");
    ++mBatches[slot];
    mRecords[slot] += events.size();
    if (slot == "activity_extend_changed") return mActivity.extendChanged(events.data(), count);
    if (slot == "environment_changed") return mEnvironment.changed(events.data(), count);

    std::set<ptrdiff_t> askers;  // nobody, one, several
    for (const auto& event : events) {
        const auto asks = [&](const ar_model::Request& request) {
            return request.activity == event.activity && request.event == event.type;
        };
        const auto& requests = mActivity.requests;
        const ptrdiff_t asking = std::count_if(requests.begin(), requests.end(), asks);
        mRouted += uint64_t(asking);
        askers.insert(std::min<ptrdiff_t>(asking, 2));
    }
    mSawMixedBatch = mSawMixedBatch || askers.size() == 3;
    // No client is the delivering process: barriers are taken, and hold nothing back.
    mActivity.changed(0, events.data(), count);
}

nlohmann::json Model::dumpClients(Side side) const {
    const ar_model::Side& tables =
            side == Side::kActivity ? static_cast<const ar_model::Side&>(mActivity) : mEnvironment;
    nlohmann::json clients = nlohmann::json::array();
    for (const bool version11 : {true, false}) {
        for (const ar_model::Entry& entry : version11 ? tables.clientsV1_1 : tables.clientsV1_0) {
            uint64_t calls = 0, empty = 0, records = 0;
            for (const auto& [name, client] : mClients) {
                if (client.callback != entry.object) continue;
                for (const auto& delivery : client.deliveries) {
                    ++calls;
                    empty += delivery.at("events").empty();
                    records += delivery.at("events").size();
                }
            }
            clients.push_back({{"version", version11 ? "1.1" : "1.0"},
                               {"pid", entry.pid},
                               {"calls", calls},
                               {"failed", 0},
                               {"empty", empty},
                               {"records", records}});
        }
    }
    return clients;
}

nlohmann::json Model::dumpPairs() const {
    using Pair = std::pair<uint32_t, uint32_t>;
    const auto enabled = mEnabled.find("activity_changed");
    std::map<Pair, nlohmann::json> pairs;
    const auto at = [&](uint32_t activity, uint32_t event) -> nlohmann::json& {
        nlohmann::json& pair = pairs[{activity, event}];
        if (pair.is_null()) {
            pair = {{"activity", activity},  {"event_type", event}, {"requests", 0},
                    {"latency_ns", nullptr}, {"enabled", false},    {"told", nullptr},
                    {"recorded", nullptr}};
        }
        return pair;
    };
    for (const ar_model::Request& request : mActivity.requests) {
        nlohmann::json& pair = at(request.activity, request.event);
        pair["requests"] = int(pair["requests"]) + 1;
        if (pair["latency_ns"].is_null() || int64_t(pair["latency_ns"]) > request.latencyNs) {
            pair["latency_ns"] = request.latencyNs;
        }
    }
    if (enabled != mEnabled.end()) {
        for (const Pair& pair : enabled->second) at(pair.first, pair.second)["enabled"] = true;
    }
    for (const ar_model::NativeEnable& record : mActivity.natives) {
        at(record.activity, record.event)["recorded"] = {{"pid", record.pid},
                                                         {"latency_ns", record.latencyNs},
                                                         {"no_wake", record.noWake != 0}};
    }
    for (const nlohmann::json& call : mNativeCalls) {
        const auto pair = call.count("activity") == 0
                                  ? pairs.end()
                                  : pairs.find({call.at("activity"), call.at("event_type")});
        if (pair == pairs.end()) continue;
        pair->second["told"] = {{"call", call.at("native")},
                                {"latency_ns", call.value("latency_ns", nlohmann::json())},
                                {"answer", call.at("result")}};
    }
    nlohmann::json rows = nlohmann::json::array();
    for (const auto& [pair, row] : pairs) rows.push_back(row);
    return rows;
}

nlohmann::json Model::dump() const {
    nlohmann::json requests = nlohmann::json::array(), leftBehind = requests, barriers = requests;
    nlohmann::json own = requests, history = requests, orphans = requests;
    const auto row = [](const auto& record) {
        return nlohmann::json{
                {"pid", record.pid}, {"activity", record.activity}, {"event_type", record.event}};
    };
    for (const ar_model::Request& request : mActivity.requests) {
        const auto is = [&](const ar_model::Entry& entry) { return entry.pid == request.pid; };
        const auto& v1_1 = mActivity.clientsV1_1;
        const auto& v1_0 = mActivity.clientsV1_0;
        if (std::none_of(v1_1.begin(), v1_1.end(), is) &&
            std::none_of(v1_0.begin(), v1_0.end(), is)) {
            leftBehind.push_back(row(request));
        }
        requests.push_back(row(request));
        requests.back().update({{"latency_ns", request.latencyNs},
                                {"params", request.params.numbers},
                                {"name", request.params.name}});
    }
    for (const ar_model::Moment& barrier : mActivity.barriers) {
        barriers.push_back(row(barrier));
        barriers.back()["timestamp"] = barrier.timestamp;
    }
    for (const ar_model::Entry& entry : mActivity.recipientsV1_1) own.push_back(entry.pid);
    std::sort(own.begin(), own.end());
    const nlohmann::json pairs = dumpPairs();
    for (const nlohmann::json& pair : pairs) {
        if (!pair.at("enabled") || pair.at("requests") != 0) continue;
        orphans.push_back(
                {{"activity", pair.at("activity")}, {"event_type", pair.at("event_type")}});
    }
    for (const nlohmann::json& call : mNativeCalls) {
        const std::string slot = call.at("native");
        if (slot != "flush" && slot.find("able_activity_event") == std::string::npos) continue;
        history.push_back({{"told", slot},
                           {"activity", call.value("activity", nlohmann::json())},
                           {"event_type", call.value("event_type", nlohmann::json())},
                           {"told_latency_ns", call.value("latency_ns", nlohmann::json())},
                           {"answer", call.at("result")},
                           {"result", 0}});
    }
    if (history.size() > 32) history.erase(history.begin(), history.end() - 32);
    const auto count = [](const auto& counts, const auto& key) {
        const auto found = counts.find(key);
        return found == counts.end() ? 0 : found->second;
    };
    return {{"activity",
             {{"clients", dumpClients(Side::kActivity)},
              {"requests", requests},
              {"pairs", pairs},
              {"orphans", orphans},
              {"left_behind", leftBehind},
              {"barriers", barriers},
              {"report_list", mActivity.reported.size()},
              {"last_events", mActivity.lastEvents.size()},
              {"recipients", {{"shared", mActivity.sharedRecipient != 0}, {"own", own}}},
              {"counters",
               {{"batches", count(mBatches, "activity_changed")},
                {"records", count(mRecords, "activity_changed")},
                {"routed", mRouted},
                {"below_barrier", 0},
                {"extended_batches", count(mBatches, "activity_extend_changed")},
                {"extended_records", count(mRecords, "activity_extend_changed")},
                {"native_refusals", 0},
                {"refused_batches", 0},
                {"calls", count(mCalls, Side::kActivity)},
                {"failed_calls", 0},
                {"deaths", count(mDeaths, Side::kActivity)}}},
              {"history", history}}},
            {"environment",
             {{"clients", dumpClients(Side::kEnvironment)},
              {"recipients", {{"shared", mEnvironment.sharedRecipient != 0}}},
              {"counters",
               {{"batches", count(mBatches, "environment_changed")},
                {"records", count(mRecords, "environment_changed")},
                {"refused_batches", 0},
                {"calls", count(mCalls, Side::kEnvironment)},
                {"failed_calls", 0},
                {"deaths", count(mDeaths, Side::kEnvironment)}}}}}};
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
    const auto times = mNextSnapshot();
    return {int32_t(times.size()), times};
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
        client.batchTimes.push_back(mBatchTime);
        ++mCalls[client.side];
    }
    return true;
}

}  // namespace demo
