// SPDX-License-Identifier: Apache-2.0
// What a service tells of itself: the object that its debug() writes with --json, format 1. Members
// that are not known here are ignored, so that a newer service can be read. Absent optionals: the
// lock that guards them could not be had, see Dump::held, unless they say something else. Times are
// CLOCK_MONOTONIC of the same machine, durations and latencies nanoseconds.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Service.h"

namespace activityctl {

struct Dump {
    struct Client {
        std::string version;
        int32_t pid;
        int64_t registeredNs;
        // Calls of its callback; failed ones; calls with an empty list; records that it was handed.
        uint64_t calls, failed, empty, records;
        int64_t lastNs, worstNs;  // how long calls took
    };
    // An activity with an event type, of a process or of nobody.
    struct Pair {
        uint32_t activity, eventType;
    };
    struct Owned : Pair {
        int32_t pid;
    };
    struct Request : Owned {
        int64_t askedLatencyNs, latencyNs;  // as the client said it, and as rounded
        std::vector<std::optional<double>> params;
        std::string name;
        bool noWake;
    };
    struct Told {
        std::string call;
        std::optional<int64_t> latencyNs;  // none for a disable
        int32_t answer;
        int64_t atNs;
    };
    struct Recorded {
        int32_t pid;
        int64_t latencyNs;
        bool noWake;
    };
    struct Merged : Pair {
        std::optional<uint64_t> requests;
        std::optional<int64_t> latencyNs;  // none also when nobody asks
        bool enabled;                      // in the module, as far as its answers tell
        std::optional<Told> told;          // none: the module was told nothing of the pair
        std::optional<Recorded> recorded;  // the record of native enables that the service goes by
    };
    struct Barrier : Owned {
        int64_t timestamp;  // of the module's clock
    };
    // A call of a client. Absent: of another call, or the module was not told.
    struct Past {
        int64_t atNs;
        int32_t pid;
        std::string call;
        std::optional<uint32_t> activity, eventType;
        std::optional<int64_t> askedLatencyNs;
        std::optional<std::string> told;  // a slot of the module
        std::optional<int64_t> toldLatencyNs;
        std::optional<int32_t> answer;
        int32_t result;
    };
    struct Recipients {
        std::optional<bool> shared;
        std::optional<std::vector<int32_t>> own;
    };
    struct Counters {
        uint64_t batches, records, refusedBatches, calls, failedCalls, deaths;
        // Of activities alone.
        uint64_t routed, belowBarrier, extendedBatches, extendedRecords, nativeRefusals;
    };
    struct Environment {
        std::optional<std::vector<Client>> clients;
        Recipients recipients;
        Counters counters;
    };
    struct Activity : Environment {
        std::optional<uint64_t> reportList, lastEvents;  // sizes
        std::optional<std::vector<Request>> requests;    // in order of making
        std::optional<std::vector<Merged>> pairs;
        std::optional<std::vector<Pair>> orphans;      // enabled, and nobody asks
        std::optional<std::vector<Owned>> leftBehind;  // of processes without a callback here
        std::optional<std::vector<Barrier>> barriers;
        std::vector<Past> history;  // oldest first
    };
    struct InFlight {
        std::string side;
        bool client;  // a client's callback, otherwise a slot of the module
        std::string call;
        int32_t pid;  // the client called, or on whose behalf
        int64_t sinceNs;
        std::optional<std::string> holds;  // none: no lock
    };

    int64_t nowNs, startedNs;
    std::vector<std::string> held;     // locks that could not be had
    std::optional<Activity> activity;  // none: the side does not live
    std::optional<Environment> environment;
    std::vector<InFlight> inFlight;
    nlohmann::json json;  // all of it, as it came
};

// Failure(kUnavailable): the service's debug() writes nothing of the kind; kServiceLost: the call
// failed. Takes as long as the call, which has no bound.
Dump readDump(Service& service);
// As above; kServiceLost also when that takes longer than kPatienceNs.
Dump readDumpInTime(const std::shared_ptr<Service>& service);
constexpr int64_t kPatienceNs = 5'000'000'000;

// What the module calls its activities; nothing if it can't be asked or, for the second, does not
// answer at once. Names are a courtesy, for which nobody waits.
std::vector<std::string> activityNames(Service& service, const Dump& dump);
std::vector<std::string> activityNamesInTime(const std::shared_ptr<Service>& service,
                                             const Dump& dump);

// "onActivityChangedV1_1 to process 4711, for 3.2 s".
std::string toText(const Dump::InFlight& call, int64_t nowNs);
// ", by the call of onActivityChangedV1_1 to process 4711, for 3.2 s", or nothing if it is not
// told.
std::string holderOf(const std::string& lock, const Dump& dump);

}  // namespace activityctl
