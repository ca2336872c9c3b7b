// SPDX-License-Identifier: Apache-2.0
#include "DumpFollower.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>

#include "Records.h"
#include "Text.h"

namespace activityctl {
namespace {

using trace::Place;
using trace::Row;

// So many calls a service remembers.
constexpr size_t kHistory = 32;

bool startsWith(const std::string& text, const char* with) {
    return text.rfind(with, 0) == 0;
}

// A process by what is known of it here: its command is not everybody's to read.
std::string nameOfProcess(pid_t pid) {
    std::ifstream file(fmt::format("/proc/{}/comm", pid));
    std::string command;
    std::getline(file, command);
    return command.empty() ? fmt::format("process {}", pid)
                           : fmt::format("{}[{}]", printable(command), pid);
}

}  // namespace

void DumpFollower::take(const Dump& dump, const std::vector<std::string>& names) {
    mNames = names;
    mShownNs = mPolls == 0 ? mStartNs : dump.nowNs;
    mAheadRequests.clear();
    mAheadPairs.clear();
    Clients clients = clientsOf(dump);
    enter(clients);
    const bool overrun = dump.activity && replay(dump.activity->history, dump.nowNs);

    // Who goes without having withdrawn its requests has not left, but died.
    std::map<pid_t, bool> gone;
    for (const auto& [client, registeredNs] : mClients) {
        gone[client.pid] = mUnwithdrawn.count(client.pid) != 0;
    }
    for (const auto& [client, registeredNs] : clients) gone.erase(client.pid);
    for (auto& [pid, died] : gone) {
        for (const auto& [request, latencyNs] : mRequests) {
            if (request.first != pid) continue;
            died = true;
            mAheadRequests.erase(request);
        }
    }
    mClients = std::move(clients);
    if (dump.activity && dump.activity->requests) {
        compareRequests(*dump.activity->requests, overrun);
    }
    if (dump.activity && dump.activity->pairs) comparePairs(*dump.activity->pairs);
    for (const auto& [pid, died] : gone) {
        mUnwithdrawn.erase(pid);
        mTrace.instant(died ? "death" : "leave", died ? "died" : "left",
                       clientAt(pid, mShownNs, ""));
    }
    mark(dump, overrun);
    ++mPolls;
    mLastNs = dump.nowNs;
}

// The others; of a side whose lock is held, those that are known.
DumpFollower::Clients DumpFollower::clientsOf(const Dump& dump) const {
    Clients clients;
    const auto add = [&](const char* side, const auto& told) {
        if (!told) return;
        if (told->clients) {
            for (const Dump::Client& client : *told->clients) {
                if (client.pid == mSelf) continue;
                clients[{side, client.version, client.pid}] = client.registeredNs;
            }
        } else {
            for (const auto& [client, registeredNs] : mClients) {
                if (client.side == side) clients[client] = registeredNs;
            }
        }
    };
    add("activities", dump.activity);
    add("environments", dump.environment);
    return clients;
}

void DumpFollower::enter(const Clients& clients) {
    for (const auto& [client, registeredNs] : clients) {
        const auto known = mClients.find(client);
        if (known != mClients.end() && known->second == registeredNs) continue;
        const std::string what = fmt::format("{} {}", client.side, client.version);
        mTrace.instant("enter", "registered for " + what,
                       clientAt(client.pid, std::max(registeredNs, mStartNs), what));
    }
}

bool DumpFollower::replay(const std::vector<Dump::Past>& history, int64_t nowNs) {
    std::set<Call> calls;
    size_t fresh = 0;
    for (const Dump::Past& call : history) {
        const Pair pair(call.activity.value_or(0), call.eventType.value_or(0));
        const auto known = calls.emplace(call.atNs, call.pid, call.call, pair).first;
        if (mHistory.count(*known) != 0) continue;
        ++fresh;
        // What the first dump tells from before stands in its tables.
        if (mPolls == 0 && call.atNs < mStartNs) continue;
        if (call.told) replayTold(call, pair);
        if (!call.activity || call.pid == mSelf) continue;
        replayRequest(call, {call.pid, pair});
        if (call.atNs >= nowNs) mAheadRequests.insert({call.pid, pair});
    }
    mHistory = std::move(calls);
    return mPolls != 0 && fresh >= kHistory;
}

void DumpFollower::replayRequest(const Dump::Past& call, const Request& request) {
    if (startsWith(call.call, "enable") && call.result == 0) {
        beginRequest(request, call.askedLatencyNs.value_or(0), call.atNs);
    } else if (call.told || call.result == 0) {
        // Also by an enable that the module refused.
        endRequest(request, call.atNs);
    }
}

void DumpFollower::replayTold(const Dump::Past& call, const Pair& pair) {
    std::string arguments = call.activity ? nameOf(pair) : "";
    if (call.toldLatencyNs) arguments += ", " + formatLatency(*call.toldLatencyNs);
    const int32_t answer = call.answer.value_or(0);
    mTrace.instant("call", fmt::format("{}({}) = {}", *call.told, arguments, answer),
                   moduleAt(std::max(call.atNs, mStartNs)));
    if (!call.activity) return;
    mAheadPairs.insert(pair);
    if (answer != 0) return;
    if (startsWith(*call.told, "enable")) {
        beginEnabled(pair, call.toldLatencyNs, call.atNs);
    } else {
        endEnabled(pair, call.atNs);
    }
}

void DumpFollower::compareRequests(const std::vector<Dump::Request>& told, bool overrun) {
    std::set<Request> standing;
    for (const Dump::Request& request : told) {
        const Request key(request.pid, {request.activity, request.eventType});
        standing.insert(key);
        if (request.pid == mSelf || mAheadRequests.count(key) != 0) continue;
        beginRequest(key, request.askedLatencyNs, mShownNs);
    }
    const auto known = mRequests;
    for (const auto& [request, latencyNs] : known) {
        if (standing.count(request) != 0 || mAheadRequests.count(request) != 0) continue;
        endRequest(request, mShownNs);
        if (!overrun) mUnwithdrawn.insert(request.first);
    }
}

void DumpFollower::comparePairs(const std::vector<Dump::Merged>& told) {
    std::set<Pair> enabled;
    for (const Dump::Merged& merged : told) {
        const Pair pair(merged.activity, merged.eventType);
        if (merged.enabled) enabled.insert(pair);
        if (mAheadPairs.count(pair) == 0) comparePair(merged, pair);
    }
    const auto known = mEnabled;
    for (const auto& [pair, latencyNs] : known) {
        if (enabled.count(pair) == 0 && mAheadPairs.count(pair) == 0) endEnabled(pair, mShownNs);
    }
}

void DumpFollower::comparePair(const Dump::Merged& told, const Pair& pair) {
    // The module's last word has a time of its own, also when the history lacks it.
    const bool agreed = told.told && told.told->answer == 0;
    const int64_t ns = agreed && told.told->atNs > mLastNs ? told.told->atNs : mShownNs;
    if (!told.enabled) return endEnabled(pair, ns);
    // What it refused has changed nothing.
    const auto known = mEnabled.find(pair);
    std::optional<int64_t> latencyNs = told.latencyNs;
    if (agreed && told.told->latencyNs) {
        latencyNs = told.told->latencyNs;
    } else if (known != mEnabled.end()) {
        latencyNs = known->second;
    }
    beginEnabled(pair, latencyNs, ns);
}

void DumpFollower::beginRequest(const Request& request, int64_t latencyNs, int64_t ns) {
    const auto known = mRequests.find(request);
    if (known != mRequests.end() && known->second == latencyNs) return;
    mRequests[request] = latencyNs;
    mTrace.begin(
            "request", nameOf(request.second),
            clientAt(request.first, std::max(ns, mStartNs), "without a callback when first seen"),
            {{"latency_ns", latencyNs}});
}

void DumpFollower::endRequest(const Request& request, int64_t ns) {
    if (mRequests.erase(request) == 0) return;
    mTrace.end(nameOf(request.second), clientAt(request.first, std::max(ns, mStartNs), ""));
}

void DumpFollower::beginEnabled(const Pair& pair, std::optional<int64_t> latencyNs, int64_t ns) {
    const auto known = mEnabled.find(pair);
    if (known != mEnabled.end() && known->second == latencyNs) return;
    mEnabled[pair] = latencyNs;
    nlohmann::json args{{"latency_ns", nullptr}};
    if (latencyNs) args["latency_ns"] = *latencyNs;
    mTrace.begin("enabled", nameOf(pair), moduleAt(std::max(ns, mStartNs)), args);
}

void DumpFollower::endEnabled(const Pair& pair, int64_t ns) {
    if (mEnabled.erase(pair) != 0) mTrace.end(nameOf(pair), moduleAt(std::max(ns, mStartNs)));
}

void DumpFollower::mark(const Dump& dump, bool overrun) {
    mTrace.instant("poll", "poll", {mModule, Row::kPolls, dump.nowNs});
    std::set<std::string> reasons;
    for (const std::string& lock : dump.held) reasons.insert(lock + " is held");
    if (overrun) reasons.insert(fmt::format("more than {} calls", kHistory));
    if (dump.nowNs - mLastNs > 2 * mIntervalNs) reasons.insert("no dump");
    mLongestNs = std::max(mLongestNs, dump.nowNs - mLastNs);
    mHeldPolls += !dump.held.empty();
    mOverruns += overrun;
    if (mBlind.empty()) mBlindNs = mLastNs;
    mBlind.merge(reasons);
    // A table that was locked is seen again by a later dump.
    if (dump.held.empty()) endBlind(dump.nowNs);
}

void DumpFollower::endBlind(int64_t ns) {
    if (mBlind.empty()) return;
    mTrace.slice("unseen", fmt::format("{}", fmt::join(mBlind, "; ")),
                 {mModule, Row::kPolls, mBlindNs}, ns - mBlindNs);
    mBlind.clear();
}

void DumpFollower::finish(int64_t ns) {
    mLongestNs = std::max(mLongestNs, ns - mLastNs);
    if (mBlind.empty()) mBlindNs = mLastNs;
    if (ns - mLastNs > 2 * mIntervalNs) mBlind.insert("no dump");
    endBlind(ns);
}

nlohmann::json DumpFollower::account() const {
    return {{"polls", mPolls},
            {"failed_polls", mFailed},
            {"held_polls", mHeldPolls},
            {"overrun_polls", mOverruns},
            {"longest_gap_ns", mLongestNs}};
}

std::string DumpFollower::nameOf(const Pair& pair) const {
    return fmt::format("{}:{}", activityctl::nameOf(pair.first, mNames), pair.second);
}

Place DumpFollower::moduleAt(int64_t ns) const {
    return {mModule, Row::kCalls, ns};
}

Place DumpFollower::clientAt(pid_t pid, int64_t ns, const std::string& what) {
    if (mLanes.insert(pid).second) {
        mTrace.addProcess(pid, nameOfProcess(pid), what, {{Row::kCalls, "calls"}});
    }
    return {pid, Row::kCalls, ns};
}

}  // namespace activityctl
