// SPDX-License-Identifier: Apache-2.0
// From one dump of a service to the next: what other clients and the module did meanwhile, as a
// trace. What clients called since the last dump comes from its history, with exact times; what
// that does not tell is dated by the dump that is the first to show it. Times are CLOCK_MONOTONIC.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <trace/Trace.h>

#include "Dump.h"

namespace activityctl {

class DumpFollower {
  public:
    // self: this process, which tells of itself and is left out. module: has a lane already. What
    // the first dump shows stands from startNs on.
    DumpFollower(trace::Trace& trace, pid_t self, pid_t module, int64_t startNs, int64_t intervalNs)
        : mTrace(trace),
          mSelf(self),
          mModule(module),
          mStartNs(startNs),
          mIntervalNs(intervalNs),
          mLastNs(startNs) {}

    // names: of activities.
    void take(const Dump& dump, const std::vector<std::string>& names);
    // Instead of a dump.
    void takeFailure() { ++mFailed; }
    // There are no more dumps.
    void finish(int64_t ns);

    // How well was looked, for the file.
    nlohmann::json account() const;

  private:
    using Pair = std::pair<uint32_t, uint32_t>;  // activity, event type
    using Request = std::pair<pid_t, Pair>;
    struct Client {
        std::string side;
        std::string version;
        pid_t pid;

        bool operator<(const Client& other) const {
            return std::tie(pid, side, version) < std::tie(other.pid, other.side, other.version);
        }
    };
    using Clients = std::map<Client, int64_t>;  // with the time of registration
    // What tells a call of the history from others: time, process, method, pair.
    using Call = std::tuple<int64_t, pid_t, std::string, Pair>;

    Clients clientsOf(const Dump& dump) const;
    void enter(const Clients& clients);
    // Whether the history may lack calls since the last dump.
    bool replay(const std::vector<Dump::Past>& history, int64_t nowNs);
    void replayRequest(const Dump::Past& call, const Request& request);
    void replayTold(const Dump::Past& call, const Pair& pair);
    void compareRequests(const std::vector<Dump::Request>& told, bool overrun);
    void comparePairs(const std::vector<Dump::Merged>& told);
    void comparePair(const Dump::Merged& told, const Pair& pair);
    void mark(const Dump& dump, bool overrun);
    void endBlind(int64_t ns);

    void beginRequest(const Request& request, int64_t latencyNs, int64_t ns);
    void endRequest(const Request& request, int64_t ns);
    void beginEnabled(const Pair& pair, std::optional<int64_t> latencyNs, int64_t ns);
    void endEnabled(const Pair& pair, int64_t ns);

    std::string nameOf(const Pair& pair) const;
    trace::Place moduleAt(int64_t ns) const;
    // what: the process is, if it is new.
    trace::Place clientAt(pid_t pid, int64_t ns, const std::string& what);

    trace::Trace& mTrace;
    const pid_t mSelf, mModule;
    const int64_t mStartNs, mIntervalNs;
    std::vector<std::string> mNames;
    std::set<pid_t> mLanes;

    // As the last dump and its history left it.
    int64_t mLastNs;
    Clients mClients;
    std::map<Request, int64_t> mRequests;             // with latency
    std::map<Pair, std::optional<int64_t>> mEnabled;  // with latency, if it is known
    std::set<Call> mHistory;
    // Whose requests went without a call: it died between two tables of the dump, and is seen to be
    // gone by the next one.
    std::set<pid_t> mUnwithdrawn;

    // Of the dump that is being taken.
    int64_t mShownNs = 0;  // when that stands which only its tables tell
    // Its history is newer here than its tables may be.
    std::set<Request> mAheadRequests;
    std::set<Pair> mAheadPairs;

    std::set<std::string> mBlind;  // why not all could be seen
    int64_t mBlindNs = 0;          // since when
    uint64_t mPolls = 0, mFailed = 0, mHeldPolls = 0, mOverruns = 0;
    int64_t mLongestNs = 0;
};

}  // namespace activityctl
