// SPDX-License-Identifier: Apache-2.0
#include "Dump.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include <android-base/unique_fd.h>

#include "Background.h"
#include "Failure.h"

namespace activityctl {
namespace {

using ::android::base::unique_fd;
using nlohmann::json;

// What a service says more than that is read, so that it can go on, and not kept.
constexpr size_t kLongestDump = 16 << 20;

// An answer that takes longer would not be one of a module that just looks its list up.
constexpr int64_t kNamesNs = 300'000'000;

// The members of an object, one after the other: Members{object}("pid", pid)("call", call). What is
// thrown says where.
struct Members {
    const json& object;

    template <typename T>
    const Members& operator()(const char* key, T& value) const {
        try {
            read(object.at(key), value);
        } catch (const std::exception& error) {
            throw std::invalid_argument(fmt::format("{}: {}", key, error.what()));
        }
        return *this;
    }

  private:
    template <typename T>
    static void read(const json& member, T& value) {
        member.get_to(value);
    }
    template <typename T>
    static void read(const json& member, std::optional<T>& value) {
        if (!member.is_null()) member.get_to(value.emplace());
    }
};

}  // namespace

// Found by the library when it converts.
static void from_json(const json& object, Dump::Client& client) {
    Members{object}("version", client.version)("pid", client.pid)(
            "registered_ns", client.registeredNs)("calls", client.calls)("failed", client.failed)(
            "empty", client.empty)("records", client.records)("last_ns", client.lastNs)(
            "worst_ns", client.worstNs);
}

static void from_json(const json& object, Dump::Pair& pair) {
    Members{object}("activity", pair.activity)("event_type", pair.eventType);
}

static void from_json(const json& object, Dump::Owned& owned) {
    from_json(object, static_cast<Dump::Pair&>(owned));
    Members{object}("pid", owned.pid);
}

static void from_json(const json& object, Dump::Request& request) {
    from_json(object, static_cast<Dump::Owned&>(request));
    Members{object}("asked_latency_ns", request.askedLatencyNs)("latency_ns", request.latencyNs)(
            "name", request.name)("no_wake", request.noWake);
    for (const json& param : object.at("params")) {  // null: no number in JSON
        request.params.push_back(param.is_null() ? std::nullopt
                                                 : std::optional(param.get<double>()));
    }
}

static void from_json(const json& object, Dump::Told& told) {
    Members{object}("call", told.call)("latency_ns", told.latencyNs)("answer", told.answer)(
            "at_ns", told.atNs);
}

static void from_json(const json& object, Dump::Recorded& recorded) {
    Members{object}("pid", recorded.pid)("latency_ns", recorded.latencyNs)("no_wake",
                                                                           recorded.noWake);
}

static void from_json(const json& object, Dump::Merged& pair) {
    from_json(object, static_cast<Dump::Pair&>(pair));
    Members{object}("requests", pair.requests)("latency_ns", pair.latencyNs)(
            "enabled", pair.enabled)("told", pair.told)("recorded", pair.recorded);
}

static void from_json(const json& object, Dump::Barrier& barrier) {
    from_json(object, static_cast<Dump::Owned&>(barrier));
    Members{object}("timestamp", barrier.timestamp);
}

static void from_json(const json& object, Dump::Past& past) {
    Members{object}("at_ns", past.atNs)("pid", past.pid)("call", past.call)(
            "activity", past.activity)("event_type", past.eventType)(
            "asked_latency_ns", past.askedLatencyNs)("told", past.told)(
            "told_latency_ns", past.toldLatencyNs)("answer", past.answer)("result", past.result);
}

static void from_json(const json& object, Dump::Recipients& recipients) {
    Members{object}("shared", recipients.shared)("own", recipients.own);
}

static void from_json(const json& object, Dump::InFlight& call) {
    Members{object}("side", call.side)("client", call.client)("call", call.call)("pid", call.pid)(
            "since_ns", call.sinceNs)("holds", call.holds);
}

static void from_json(const json& object, Dump::Environment& side) {
    Members{object}("clients", side.clients);
    Members{object.at("recipients")}("shared", side.recipients.shared);
    Members{object.at("counters")}("batches", side.counters.batches)(
            "records", side.counters.records)("refused_batches", side.counters.refusedBatches)(
            "calls", side.counters.calls)("failed_calls", side.counters.failedCalls)(
            "deaths", side.counters.deaths);
}

static void from_json(const json& object, Dump::Activity& side) {
    from_json(object, static_cast<Dump::Environment&>(side));
    Members{object}("recipients", side.recipients)("report_list", side.reportList)(
            "last_events", side.lastEvents)("requests", side.requests)("pairs", side.pairs)(
            "orphans", side.orphans)("left_behind", side.leftBehind)("barriers", side.barriers)(
            "history", side.history);
    Members{object.at("counters")}("routed", side.counters.routed)(
            "below_barrier", side.counters.belowBarrier)("extended_batches",
                                                         side.counters.extendedBatches)(
            "extended_records", side.counters.extendedRecords)("native_refusals",
                                                               side.counters.nativeRefusals);
}

static void from_json(const json& object, Dump& dump) {
    int64_t format;
    Members{object}("format", format);
    if (format != 1) throw std::invalid_argument(fmt::format("format: {}, not 1", format));
    Members{object}("now_ns", dump.nowNs)("started_ns", dump.startedNs)("held", dump.held)(
            "activity", dump.activity)("environment", dump.environment)("in_flight", dump.inFlight);
}

namespace {

// Reads a pipe on a thread of its own: who writes there waits when it is full.
class PipeReader {
  public:
    PipeReader() : mOver(eventfd(0, EFD_CLOEXEC)) {
        int ends[2];
        if (mOver.get() < 0 || pipe2(ends, O_CLOEXEC) != 0) {
            throw Failure(kServiceLost,
                          fmt::format("no pipe for the service to write to: {}", strerror(errno)));
        }
        mReadEnd.reset(ends[0]);
        mWriteEnd.reset(ends[1]);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        mThread = std::thread([this] { run(); });
    }
    ~PipeReader() { finish(); }

    unique_fd takeWriteEnd() { return std::move(mWriteEnd); }

    // What was written until now. Whoever keeps the other end open is not waited for.
    const std::string& finish() {
        if (mThread.joinable()) {
            eventfd_write(mOver.get(), 1);
            mThread.join();
        }
        return mText;
    }

  private:
    void run() {
        pollfd fds[] = {{mReadEnd.get(), POLLIN, 0}, {mOver.get(), POLLIN, 0}};
        for (bool over = false, rest = true; !over || rest;) {
            if (poll(fds, std::size(fds), -1) < 0) continue;
            over = fds[1].revents != 0;
            char buffer[4096];
            const ssize_t size = read(mReadEnd.get(), buffer, sizeof(buffer));
            if (size == 0) fds[0].fd = -1;  // nobody has the other end any more
            rest = size > 0 && mText.size() <= kLongestDump;
            if (rest) mText.append(buffer, static_cast<size_t>(size));
        }
    }

    const unique_fd mOver;
    unique_fd mReadEnd, mWriteEnd;
    std::string mText;
    std::thread mThread;
};

// Names come from clients, in whatever bytes they like.
std::string asUtf8(const std::string& text) {
    return json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace));
}

}  // namespace

Dump readDump(Service& service) {
    PipeReader reader;
    service.debug(reader.takeWriteEnd(), {"--json"});
    const std::string text = asUtf8(reader.finish());
    const auto cannot = [&service](const std::string& why) {
        return Failure(kUnavailable,
                       fmt::format("{} gives no account of itself that can be read here: {}",
                                   service.fullName(), why));
    };
    if (text.empty()) throw cannot("its debug() wrote nothing");
    if (text.size() > kLongestDump) throw cannot("its debug() does not come to an end");
    try {
        auto object = json::parse(text);
        auto dump = object.get<Dump>();
        dump.json = std::move(object);
        return dump;
    } catch (const std::exception& error) {
        throw cannot(error.what());
    }
}

Dump readDumpInTime(const std::shared_ptr<Service>& service) {
    auto dump = inTime(kPatienceNs, [service] { return readDump(*service); });
    if (!dump) {
        throw Failure(kServiceLost,
                      fmt::format("{} has not answered for {} s: it is stopped, or its threads all "
                                  "wait for clients or for the module",
                                  service->fullName(), kPatienceNs / 1'000'000'000));
    }
    return *std::move(dump);
}

std::vector<std::string> activityNames(Service& service, const Dump& dump) {
    // Asking would make a side that does not live, and a list that hangs take one more thread of
    // the service's.
    if (!dump.activity ||
        std::any_of(dump.inFlight.begin(), dump.inFlight.end(), [](const auto& call) {
            return call.call == "get_supported_activities_list";
        })) {
        return {};
    }
    try {
        const auto side = service.findActivities();
        if (side != nullptr) return side->names();
    } catch (const Failure&) {
        // Who asks next is told.
    }
    return {};
}

std::vector<std::string> activityNamesInTime(const std::shared_ptr<Service>& service,
                                             const Dump& dump) {
    auto names = inTime(kNamesNs, [service, dump] { return activityNames(*service, dump); });
    return names.value_or(std::vector<std::string>());
}

std::string toText(const Dump::InFlight& call, int64_t nowNs) {
    return fmt::format("{} {} process {}, for {}", call.call, call.client ? "to" : "on behalf of",
                       call.pid, formatAge(nowNs - call.sinceNs));
}

std::string holderOf(const std::string& lock, const Dump& dump) {
    for (const Dump::InFlight& call : dump.inFlight) {
        if (call.holds == lock) {
            return fmt::format(", by the call of {}", toText(call, dump.nowNs));
        }
    }
    return "";
}

}  // namespace activityctl
