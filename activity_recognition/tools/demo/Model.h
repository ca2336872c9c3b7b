// SPDX-License-Identifier: Apache-2.0
// The model of the rules in the demo's words: clients have names, calls and events are JSON as the
// module's trace and the clients show them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ScenarioFile.h"
#include "ar_model/Model.h"

namespace demo {

// One record that the module must report.
struct ExpectedReport {
    const ScenarioRecord* record;
    int64_t dueNs;  // since the beginning of the scenario, by the module's clock
};

class Model : private ar_model::World {
  public:
    // Tells the timestamps of the snapshot that the module has just answered with.
    using NextSnapshot = std::function<std::vector<int64_t>()>;

    Model(const ScenarioFile& scenario, NextSnapshot nextSnapshot)
        : mScenario(scenario), mNextSnapshot(std::move(nextSnapshot)) {}

    enum class Side { kActivity, kEnvironment };

    // A client process registers; version11 false: in version 1.0.
    void addClient(const std::string& client, Side side, bool version11, int32_t pid);
    // Its process ended; what it asked for and did not withdraw is the service's to handle.
    void removeClient(const std::string& client);

    // params: with the extended method.
    void enable(const std::string& client, uint32_t id, uint32_t eventType, int64_t latencyNs,
                const std::optional<ar_model::Params>& params = {});
    void disable(const std::string& client, uint32_t id, uint32_t eventType);
    void flush() { mActivity.flush(); }
    void initEnvironment(uint32_t environment) { mEnvironment.init(environment, {}); }

    // The scenario's stage is played: what is enabled in the module is to be reported.
    void play(const std::string& stage);
    // Virtual time passes between two stages.
    void pass(int64_t ns) { mPassedNs += ns; }
    // A batch as the module sent it.
    void deliver(const nlohmann::json& batch);

    const std::vector<nlohmann::json>& nativeCalls() const { return mNativeCalls; }
    // By the slot that reports them.
    const std::map<std::string, std::vector<ExpectedReport>>& reports() const { return mReports; }
    // The calls that a client must get, one after the other.
    const std::vector<nlohmann::json>& deliveries(const std::string& client) const {
        return mClients.at(client).deliveries;
    }
    // The times at which the module sent the batches that caused them.
    const std::vector<int64_t>& batchTimes(const std::string& client) const {
        return mClients.at(client).batchTimes;
    }
    // What the service's dump must show, table by table; no times, durations or asked latencies.
    nlohmann::json dump() const;
    const std::vector<std::string>& logLines() const { return mLogLines; }
    bool sawMixedBatch() const { return mSawMixedBatch; }

  private:
    struct Client {
        Side side;
        int32_t pid;
        ar_model::Callback callback;
        std::vector<nlohmann::json> deliveries;
        std::vector<int64_t> batchTimes;
    };

    nlohmann::json dumpClients(Side side) const;
    nlohmann::json dumpPairs() const;

    int32_t call(const ar_model::NativeCall& call) override;
    ar_model::Snapshot currentActivity() override;
    bool deliver(ar_model::Callback to, const std::string& method,
                 const std::vector<ar_model::Event>& events) override;
    ar_model::Recipient newRecipient() override { return ++mObjects; }
    ar_model::LinkAnswer link(ar_model::Callback, ar_model::Recipient, uint64_t) override {
        return {};
    }
    void unlink(ar_model::Callback, ar_model::Recipient) override {}
    void log(char level, const std::string& tag, const std::string& text) override {
        mLogLines.push_back(std::string(1, level) + " " + tag + ": " + text);
    }

    const ScenarioFile& mScenario;
    const NextSnapshot mNextSnapshot;
    ar_model::Activity mActivity{*this};
    ar_model::Environment mEnvironment{*this};
    uint64_t mObjects = 0;
    std::map<std::string, Client> mClients;
    // What the module has enabled: the pairs that each of its callbacks reports.
    std::map<std::string, std::set<std::pair<uint32_t, uint32_t>>> mEnabled;
    std::map<std::string, std::vector<ExpectedReport>> mReports;
    std::vector<nlohmann::json> mNativeCalls;
    std::vector<std::string> mLogLines;
    int64_t mPassedNs = 0;
    bool mSawMixedBatch = false;
    int64_t mBatchTime = 0;
    // What the dump counts.
    std::map<std::string, uint64_t> mBatches, mRecords;  // by slot
    uint64_t mRouted = 0;
    std::map<Side, uint64_t> mCalls, mDeaths;
};

}  // namespace demo
