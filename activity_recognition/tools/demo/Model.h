// What must come of the clients' requests and the scenario, worked out from the rules alone: the
// calls that the native module gets, and the events that each client gets. Knows nothing of how
// the service or the simulator do it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ScenarioFile.h"

namespace demo {

// One event that a client must get.
struct ExpectedEvent {
    std::string stage;
    const ScenarioRecord* record;
};

// What one client must get, by callback method.
using ExpectedEvents = std::map<std::string, std::vector<ExpectedEvent>>;

struct Extras {
    std::array<double, 4> params{};
    std::string name;
};

class Model {
  public:
    explicit Model(const ScenarioFile& scenario) : mScenario(scenario) {}

    enum class Side { kActivity, kEnvironment };

    // A client as the model sees it; version11 false: version 1.0.
    void addClient(const std::string& client, Side side, bool version11);
    // Its process ended; what it asked for and did not withdraw is the service's to handle.
    void removeClient(const std::string& client);

    // extras NULL: the plain method.
    void enable(const std::string& client, uint32_t activity, uint32_t eventType, int64_t latencyNs,
                const Extras* extras = nullptr);
    void disable(const std::string& client, uint32_t activity, uint32_t eventType);
    void flush();
    void initEnvironment(uint32_t environment);
    void enableEnvironment(uint32_t environment, uint32_t eventType, int64_t latencyNs);
    void disableEnvironment(uint32_t environment, uint32_t eventType);

    void play(const std::string& stage);
    // A batch of plain events as the module sent it: version 1.0 clients get a call per process
    // that ever had an event, so how often they are called depends on the batches.
    void countCalls(const nlohmann::json& events);

    const std::vector<nlohmann::json>& nativeCalls() const { return mNativeCalls; }
    ExpectedEvents expected(const std::string& client) const;
    size_t expectedPlainCalls(const std::string& client) const;
    bool sawMixedBatch() const { return mSawMixedBatch; }

  private:
    using Pair = std::pair<uint32_t, uint32_t>;

    struct Client {
        Side side;
        bool version11;
        bool alive = true;
        size_t plainCalls = 0;  // version 1.0
        ExpectedEvents events;
    };
    struct Request {
        std::string client;
        Pair pair;
        int64_t latencyNs;
        Extras extras;
    };

    int64_t smallestLatency(const Pair& pair) const;
    void tellModule(const Pair& pair, int64_t latencyNs, const Extras* extras);
    void expect(Client& client, const char* call, const std::string& stage,
                const ScenarioRecord& record);

    const ScenarioFile& mScenario;
    std::map<std::string, Client> mClients;
    std::vector<Request> mRequests;          // oldest first
    std::map<Pair, bool> mModulePairs;       // enabled there; whether through the extended slot
    std::set<Pair> mModuleEnvironmentPairs;  // enabled there
    std::set<std::string> mEverRouted;       // clients that ever had a plain event
    std::vector<nlohmann::json> mNativeCalls;
    bool mSawMixedBatch = false;
};

}  // namespace demo
