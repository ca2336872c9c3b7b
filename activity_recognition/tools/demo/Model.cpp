#include "Model.h"

#include <algorithm>
#include <limits>

namespace demo {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kNoWakeLatencyNs = 7 * 24 * 3600 * kSecond;
constexpr std::array<double, 4> kNoWake{1.0, 0.0, 0.0, 0.0};

}  // namespace

void Model::addClient(const std::string& client, Side side, bool version11) {
    mClients[client] = {side, version11, true, 0, {}};
}

void Model::removeClient(const std::string& client) {
    Client& gone = mClients.at(client);
    gone.alive = false;
    // The death of a version 1.0 client leaves its requests, and neither tells the module.
    if (!gone.version11) return;
    mRequests.erase(std::remove_if(mRequests.begin(), mRequests.end(),
                                   [&](const Request& r) { return r.client == client; }),
                    mRequests.end());
}

int64_t Model::smallestLatency(const Pair& pair) const {
    int64_t smallest = std::numeric_limits<int64_t>::max();
    for (const Request& request : mRequests) {
        if (request.pair == pair) smallest = std::min(smallest, request.latencyNs);
    }
    return smallest;
}

void Model::tellModule(const Pair& pair, int64_t latencyNs, const Extras* extras) {
    nlohmann::json call{{"activity", pair.first},
                        {"event_type", pair.second},
                        {"latency_ns", latencyNs},
                        {"result", 0}};
    if (extras != nullptr) {
        call["native"] = "enable_activity_event_extend";
        call["params"] = extras->params;
        call["name"] = extras->name;
    } else {
        call["native"] = "enable_activity_event";
    }
    mNativeCalls.push_back(std::move(call));
    mModulePairs[pair] = mModulePairs[pair] || extras != nullptr;
}

void Model::enable(const std::string& client, uint32_t activity, uint32_t eventType,
                   int64_t latencyNs, const Extras* extras) {
    const Pair pair{activity, eventType};
    // The module keeps a pair until its last request is withdrawn, whoever enabled it: the set of
    // its pairs tells whether this is a join.
    const bool join = mModulePairs.count(pair) != 0;
    latencyNs = std::max(kSecond, latencyNs / kSecond * kSecond);
    if (extras != nullptr && extras->params == kNoWake) latencyNs = kNoWakeLatencyNs;
    mRequests.erase(std::remove_if(mRequests.begin(), mRequests.end(),
                                   [&](const Request& request) {
                                       return request.client == client && request.pair == pair;
                                   }),
                    mRequests.end());
    mRequests.push_back({client, pair, latencyNs, extras != nullptr ? *extras : Extras{}});
    tellModule(pair, join ? smallestLatency(pair) : latencyNs, extras);
    if (join) mNativeCalls.push_back({{"native", "get_current_activity"}});
}

void Model::disable(const std::string& client, uint32_t activity, uint32_t eventType) {
    const Pair pair{activity, eventType};
    mRequests.erase(std::find_if(mRequests.begin(), mRequests.end(), [&](const Request& request) {
        return request.client == client && request.pair == pair;
    }));
    bool any = false, allExtended = true;
    Extras extras;  // the last no-wake request's
    for (const Request& request : mRequests) {
        if (request.pair != pair) continue;
        any = true;
        if (request.extras.params[0] == 0.0) allExtended = false;
        if (request.extras.params == kNoWake) extras = request.extras;
    }
    if (any) {
        tellModule(pair, smallestLatency(pair), allExtended ? &extras : nullptr);
        return;
    }
    mModulePairs.erase(pair);
    mNativeCalls.push_back({{"native", "disable_activity_event"},
                            {"activity", activity},
                            {"event_type", eventType},
                            {"result", 0}});
}

void Model::flush() {
    mNativeCalls.push_back({{"native", "flush"}, {"result", 0}});
}

void Model::initEnvironment(uint32_t environment) {
    mNativeCalls.push_back({{"native", "init_environment"},
                            {"environment", environment},
                            {"params", {0.0, 0.0, 0.0, 0.0}},
                            {"name", ""},
                            {"result", 0}});
}

void Model::enableEnvironment(uint32_t environment, uint32_t eventType, int64_t latencyNs) {
    mModuleEnvironmentPairs.insert({environment, eventType});
    mNativeCalls.push_back({{"native", "enable_environment"},
                            {"environment", environment},
                            {"event_type", eventType},
                            {"latency_ns", latencyNs},
                            {"params", {0.0, 0.0, 0.0, 0.0}},
                            {"name", ""},
                            {"result", 0}});
}

void Model::disableEnvironment(uint32_t environment, uint32_t eventType) {
    mModuleEnvironmentPairs.erase({environment, eventType});
    mNativeCalls.push_back({{"native", "disable_environment"},
                            {"environment", environment},
                            {"event_type", eventType},
                            {"result", 0}});
}

void Model::expect(Client& client, const char* call, const std::string& stage,
                   const ScenarioRecord& record) {
    if (client.alive) client.events[call].push_back({stage, &record});
}

void Model::play(const std::string& stage) {
    for (const ScenarioRecord& record : mScenario.stages.at(stage)) {
        const Pair pair{record.id, record.eventType};
        if (record.kind == Kind::kActivity) {
            if (mModulePairs.count(pair) == 0) continue;
            for (const Request& request : mRequests) {
                if (request.pair != pair) continue;
                if (mClients.at(request.client).version11) {
                    expect(mClients.at(request.client), "onActivityChangedV1_1", stage, record);
                }
                // Version 1.0 clients see what was routed to anybody.
                for (auto& [name, client] : mClients) {
                    if (client.side == Side::kActivity && !client.version11) {
                        expect(client, "onActivityChanged", stage, record);
                    }
                }
            }
            continue;
        }
        const bool extended = record.kind == Kind::kExtended;
        const auto modulePair = mModulePairs.find(pair);
        if (extended ? modulePair == mModulePairs.end() || !modulePair->second
                     : mModuleEnvironmentPairs.count(pair) == 0) {
            continue;
        }
        for (auto& [name, client] : mClients) {
            if ((client.side == Side::kActivity) != extended) continue;
            const char* call = extended           ? client.version11 ? "onActivityExtendChangedV1_1"
                                                                     : "onActivityExtendChanged"
                               : client.version11 ? "onEnvironmentChangedV1_1"
                                                  : "onEnvironmentChanged";
            expect(client, call, stage, record);
        }
    }
}

void Model::countCalls(const nlohmann::json& events) {
    std::set<size_t> askers;
    for (const auto& event : events) {
        size_t count = 0;
        for (const Request& request : mRequests) {
            if (request.pair != Pair{event.at("activity"), event.at("event_type")}) continue;
            mEverRouted.insert(request.client);
            ++count;
        }
        askers.insert(std::min<size_t>(count, 2));
    }
    mSawMixedBatch = mSawMixedBatch || askers.size() == 3;
    for (auto& [name, client] : mClients) {
        if (client.alive) client.plainCalls += mEverRouted.size();
    }
}

ExpectedEvents Model::expected(const std::string& client) const {
    return mClients.at(client).events;
}

size_t Model::expectedPlainCalls(const std::string& client) const {
    return mClients.at(client).plainCalls;
}

}  // namespace demo
