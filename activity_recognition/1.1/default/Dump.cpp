// SPDX-License-Identifier: Apache-2.0
#include "Dump.h"

#include <string.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "DumpWriter.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

namespace {

constexpr uint32_t kFormat =
        1;  // grows when a member of the JSON object changes its meaning or goes

constexpr char kHelp[] =
        "Shows what the service knows: clients, requests, what the native module was told,\n"
        "counters since the library was loaded, and which calls run this moment.\n"
        "\n"
        "  --json   the same as one JSON object\n"
        "  --help   this text\n"
        "\n"
        "The module is asked nothing, no record's content is shown and nothing changes by\n"
        "looking. A table whose lock is held for over 100 ms is left out, and the lock named.\n"
        "Orphans are pairs that the module has enabled though nobody asks for them. Requests\n"
        "that were left behind are of processes without a callback: once such a process is\n"
        "gone nobody can withdraw them.\n";

const int64_t gLoadedNs = NowNs();

// A pair as all tables together show it.
struct PairState {
    uint64_t requests = 0;
    int64_t latencyNs = 0;  // the smallest
    const Told* told = nullptr;
    const EnableToNativeData* recorded = nullptr;

    bool enabled() const { return told != nullptr && told->enabled; }
};
using Pairs = std::map<PairKey, PairState>;

Pairs JoinPairs(const ActivityState& state) {
    Pairs pairs;
    for (const RequestState& request : state.requests) {
        PairState& pair = pairs[PairOf()(request.request)];
        const int64_t latencyNs = request.request.reportLatencyNs;
        pair.latencyNs = pair.requests == 0 ? latencyNs : std::min(pair.latencyNs, latencyNs);
        ++pair.requests;
    }
    for (const auto& told : state.told) pairs[told.first].told = &told.second;
    // The first record counts.
    for (auto at = state.recorded.rbegin(); at != state.recorded.rend(); ++at) {
        pairs[PairOf()(*at)].recorded = &*at;
    }
    return pairs;
}

// Signed, unlike the key that it is.
void WritePid(DumpWriter& out, uint64_t pid) {
    out.number("pid", static_cast<int64_t>(pid));
}

void WritePairNumbers(DumpWriter& out, uint32_t activity, uint32_t event) {
    out.number("activity", activity);
    out.number("event_type", event);
}

void WriteClients(DumpWriter& out, const CommonState& state) {
    if (!state.hasClients) return out.unknown("clients");
    out.openList("clients");
    for (const ClientState& client : state.clients) {
        out.openObject(nullptr);
        out.text("version", client.version);
        WritePid(out, client.pid);
        out.moment("registered_ns", client.calls.registeredNs);
        out.number("calls", client.calls.calls);
        out.number("failed", client.calls.failed);
        out.number("empty", client.calls.empty);
        out.number("records", client.calls.records);
        out.duration("last_ns", client.calls.lastNs);
        out.duration("worst_ns", client.calls.worstNs);
        out.close();
    }
    out.close();
}

void WriteRequests(DumpWriter& out, const ActivityState& state) {
    if (!state.hasRequests) return out.unknown("requests");
    out.openList("requests");
    for (const RequestState& row : state.requests) {
        const EnableRequestData& request = row.request;
        const other_params& params = request.otherParams;
        out.openObject(nullptr);
        WritePid(out, request.pid);
        WritePairNumbers(out, request.activity, request.event);
        out.duration("asked_latency_ns", row.askedNs);
        out.duration("latency_ns", request.reportLatencyNs);
        out.openList("params");
        for (const double number : params.params) out.real(nullptr, number);
        out.close();
        out.bytes("name", std::string(params.name, strnlen(params.name, sizeof(params.name))));
        out.flag("no_wake", RequestRules::IsRequestWake(request));
        out.close();
    }
    out.close();
}

// Disables and flushes have no latency.
void WriteLatency(DumpWriter& out, const char* name, const char* call, int64_t latencyNs) {
    const bool enables = call != nullptr && strncmp(call, "enable", 6) == 0;
    enables ? out.duration(name, latencyNs) : out.none(name);
}

void WriteTold(DumpWriter& out, const Told& told) {
    out.openObject("told");
    out.text("call", told.slot);
    WriteLatency(out, "latency_ns", told.slot, told.latencyNs);
    out.number("answer", told.answer);
    out.moment("at_ns", told.atNs);
    out.close();
}

void WriteRecorded(DumpWriter& out, const EnableToNativeData& recorded) {
    out.openObject("recorded");
    WritePid(out, recorded.pid);
    out.duration("latency_ns", recorded.reportLatencyNs);
    out.flag("no_wake", recorded.noWake != 0);
    out.close();
}

void WritePairs(DumpWriter& out, const ActivityState& state, const Pairs& pairs) {
    if (!state.hasNative) return out.unknown("pairs");
    out.openList("pairs");
    for (const auto& entry : pairs) {
        const PairState& pair = entry.second;
        out.openObject(nullptr);
        WritePairNumbers(out, entry.first.first, entry.first.second);
        state.hasRequests ? out.number("requests", pair.requests) : out.unknown("requests");
        pair.requests > 0 ? out.duration("latency_ns", pair.latencyNs) : out.none("latency_ns");
        out.flag("enabled", pair.enabled());
        pair.told != nullptr ? WriteTold(out, *pair.told) : out.none("told");
        pair.recorded != nullptr ? WriteRecorded(out, *pair.recorded) : out.none("recorded");
        out.close();
    }
    out.close();
}

void WriteOrphans(DumpWriter& out, const ActivityState& state, const Pairs& pairs) {
    if (!state.hasNative || !state.hasRequests) return out.unknown("orphans");
    out.openList("orphans");
    for (const auto& entry : pairs) {
        if (!entry.second.enabled() || entry.second.requests > 0) continue;
        out.openObject(nullptr);
        WritePairNumbers(out, entry.first.first, entry.first.second);
        out.close();
    }
    out.close();
}

void WriteLeftBehind(DumpWriter& out, const ActivityState& state) {
    if (!state.hasClients || !state.hasRequests) return out.unknown("left_behind");
    std::set<uint64_t> registered;
    for (const ClientState& client : state.clients) registered.insert(client.pid);
    out.openList("left_behind");
    for (const RequestState& row : state.requests) {
        if (registered.count(row.request.pid) != 0) continue;
        out.openObject(nullptr);
        WritePid(out, row.request.pid);
        WritePairNumbers(out, row.request.activity, row.request.event);
        out.close();
    }
    out.close();
}

void WriteBarriers(DumpWriter& out, const ActivityState& state) {
    if (!state.hasRequests) return out.unknown("barriers");
    out.openList("barriers");
    for (const FirstReport& barrier : state.barriers) {
        out.openObject(nullptr);
        WritePid(out, barrier.pid);
        WritePairNumbers(out, barrier.activity, barrier.event);
        out.number("timestamp", barrier.timestamp);
        out.close();
    }
    out.close();
}

void WriteRecipients(DumpWriter& out, const CommonState& state, const ActivityState* activity) {
    out.openObject("recipients");
    state.hasShared ? out.flag("shared", state.shared) : out.unknown("shared");
    if (activity != nullptr && !activity->hasOwn) out.unknown("own");
    if (activity != nullptr && activity->hasOwn) {
        out.openList("own");
        for (const uint64_t pid : activity->own) out.number(nullptr, static_cast<int64_t>(pid));
        out.close();
    }
    out.close();
}

void WriteCounters(DumpWriter& out, const SideCounters& side, const ActivityCounters* activity) {
    out.openObject("counters");
    out.number("batches", side.batches.value());
    out.number("records", side.records.value());
    if (activity != nullptr) {
        out.number("routed", activity->routed.value());
        out.number("below_barrier", activity->belowBarrier.value());
        out.number("extended_batches", activity->extendedBatches.value());
        out.number("extended_records", activity->extendedRecords.value());
        out.number("native_refusals", activity->nativeRefusals.value());
    }
    out.number("refused_batches", side.refusedBatches.value());
    out.number("calls", side.calls.value());
    out.number("failed_calls", side.failedCalls.value());
    out.number("deaths", side.deaths.value());
    out.close();
}

void WriteHistory(DumpWriter& out, const ActivityState& state) {
    out.openList("history");
    for (const Attempt& attempt : state.history) {
        out.openObject(nullptr);
        out.moment("at_ns", attempt.atNs);
        WritePid(out, attempt.pid);
        out.text("call", attempt.call);
        if (strcmp(attempt.call, "flush") == 0) {
            out.none("activity");
            out.none("event_type");
        } else {
            WritePairNumbers(out, attempt.activity, attempt.event);
        }
        WriteLatency(out, "asked_latency_ns", attempt.call, attempt.askedNs);
        attempt.slot != nullptr ? out.text("told", attempt.slot) : out.none("told");
        WriteLatency(out, "told_latency_ns", attempt.slot, attempt.toldNs);
        attempt.slot != nullptr ? out.number("answer", attempt.answer) : out.none("answer");
        out.number("result", attempt.result);
        out.close();
    }
    out.close();
}

void WriteActivity(DumpWriter& out, const ActivityState& state) {
    const Pairs pairs = JoinPairs(state);
    out.openObject("activity");
    WriteClients(out, state);
    WriteRequests(out, state);
    WritePairs(out, state, pairs);
    WriteOrphans(out, state, pairs);
    WriteLeftBehind(out, state);
    WriteBarriers(out, state);
    state.hasClients ? out.number("report_list", uint64_t{state.reportList})
                     : out.unknown("report_list");
    state.hasLastEvents ? out.number("last_events", uint64_t{state.lastEvents})
                        : out.unknown("last_events");
    WriteRecipients(out, state, &state);
    WriteCounters(out, ActivityInterface::counters(), &ActivityInterface::counters());
    WriteHistory(out, state);
    out.close();
}

void WriteEnvironment(DumpWriter& out, const CommonState& state) {
    out.openObject("environment");
    WriteClients(out, state);
    WriteRecipients(out, state, nullptr);
    WriteCounters(out, EnvironmentInterface::counters(), nullptr);
    out.close();
}

void WriteInFlight(DumpWriter& out) {
    out.openList("in_flight");
    for (const InFlight::Call& call : InFlight::look()) {
        out.openObject(nullptr);
        out.text("side", call.site->side);
        out.flag("client", call.site->holds != nullptr);
        out.text("call", call.site->call);
        WritePid(out, call.pid);
        out.moment("since_ns", call.sinceNs);
        call.holds != nullptr ? out.text("holds", call.holds) : out.none("holds");
        out.close();
    }
    out.close();
}

}  // namespace

std::string Dump(const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options,
                 ActivityInterface* activity, EnvironmentInterface* environment) {
    bool json = false;
    for (const auto& option : options) {
        if (option == "--help") return kHelp;
        if (option != "--json") return "There are --json and --help, and no other options.\n";
        json = true;
    }
    const int64_t nowNs = NowNs();
    DumpWriter out(json, nowNs);
    out.openObject(nullptr);
    out.number("format", kFormat);
    out.number("now_ns", nowNs);
    out.moment("started_ns", gLoadedNs);
    // First, as the locks may take a while.
    WriteInFlight(out);
    ActivityState activityState;
    CommonState environmentState;
    if (activity != nullptr) activityState = activity->look();
    if (environment != nullptr) environmentState = environment->look();
    out.openList("held");
    for (const char* lock : activityState.held) out.text(nullptr, lock);
    for (const char* lock : environmentState.held) out.text(nullptr, lock);
    out.close();
    activity != nullptr ? WriteActivity(out, activityState) : out.none("activity");
    environment != nullptr ? WriteEnvironment(out, environmentState) : out.none("environment");
    out.close();
    return out.result();
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
