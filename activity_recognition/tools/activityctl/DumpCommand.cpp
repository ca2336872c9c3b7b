// SPDX-License-Identifier: Apache-2.0
// A dump as text for people, and as JSON with the activities' names.
#include <fmt/format.h>

#include <cmath>

#include "Commands.h"
#include "Dump.h"

namespace activityctl {
namespace {

using nlohmann::json;

// Adds "activity_name" wherever an "activity" is told by its number.
void addNames(json& value, const std::vector<std::string>& names) {
    if (value.is_object()) {
        const auto activity = value.find("activity");
        if (activity != value.end() && activity->is_number_unsigned() && *activity < names.size()) {
            value["activity_name"] = names[activity->get<size_t>()];
        }
    }
    if (value.is_structured()) {
        for (json& member : value) addNames(member, names);
    }
}

class Report {
  public:
    Report(const Dump& dump, const std::vector<std::string>& names, const Output& output)
        : mDump(dump), mNames(names), mOutput(output) {}

    std::string text(const std::string& service) {
        line(0, fmt::format("{}, {} {}", mOutput.bold(service),
                            mOutput.raw() ? "there since" : "there for", since(mDump.startedNs)));
        addLocks();
        addInFlight();
        addSide("activity", mDump.activity, &Report::addActivity);
        addSide("environment", mDump.environment, &Report::addEnvironment);
        return mText.substr(1);  // without the first line's break
    }

  private:
    void line(int depth, const std::string& text) {
        mText += '\n' + std::string(static_cast<size_t>(2 * depth), ' ') + text;
    }

    // A time of now_ns' clock: how long ago, or with --raw as it is.
    std::string since(int64_t ns) const {
        return mOutput.raw() ? fmt::format("{}", ns) : formatAge(mDump.nowNs - ns);
    }
    std::string ago(int64_t ns) const { return since(ns) + (mOutput.raw() ? "" : " ago"); }
    std::string duration(int64_t ns) const {
        return mOutput.raw() ? fmt::format("{}", ns) : formatAge(ns);
    }
    std::string latency(int64_t ns) const {
        return mOutput.raw() ? fmt::format("{} ns", ns) : formatLatency(ns);
    }
    std::string pair(const Dump::Pair& pair) const {
        return fmt::format("{}:{}", nameOf(pair.activity, mNames), pair.eventType);
    }

    // A list with its heading; add() adds one of its entries.
    template <typename Entries, typename Add>
    void addList(const std::string& heading, const std::optional<Entries>& entries, Add add) {
        if (!entries || entries->empty()) {
            return line(1, heading + (entries ? ": none" : ": not told, its lock is held"));
        }
        line(1, heading);
        for (const auto& entry : *entries) add(entry);
    }

    void addLocks() {
        for (const std::string& lock : mDump.held) {
            line(1, fmt::format("{} {}{}; what it guards is not told", mOutput.bold("held:"),
                                printable(lock), holderOf(lock, mDump)));
        }
    }

    void addInFlight() {
        if (mDump.inFlight.empty()) return;
        line(0, "under way");
        for (const Dump::InFlight& call : mDump.inFlight) {
            line(1, fmt::format("{}, {} side{}", toText(call, mDump.nowNs), call.side,
                                call.holds ? ", holds " + *call.holds : ""));
        }
    }

    template <typename Side>
    void addSide(const char* name, const std::optional<Side>& side,
                 void (Report::*add)(const Side&)) {
        line(0, name + std::string(side ? ""
                                        : ": nobody has asked for this side yet, or the module "
                                          "has none"));
        if (side) (this->*add)(*side);
    }

    void addClients(const Dump::Environment& side) {
        std::vector<std::vector<std::string>> rows{{"process", "version", "registered", "calls",
                                                    "failed", "empty", "records", "last", "worst"}};
        for (const Dump::Client& client : side.clients.value_or(std::vector<Dump::Client>())) {
            rows.push_back({fmt::format("{}", client.pid), client.version, ago(client.registeredNs),
                            fmt::format("{}", client.calls), fmt::format("{}", client.failed),
                            fmt::format("{}", client.empty), fmt::format("{}", client.records),
                            duration(client.lastNs), duration(client.worstNs)});
        }
        const bool any = side.clients && !side.clients->empty();
        addList("clients, with the calls of their callbacks and how long they took", side.clients,
                [](const auto&) {});
        if (!any) return;
        for (const std::string& row : inColumns(rows)) line(2, row);
    }

    void addCounters(const Dump::Environment& side, const std::string& more) {
        const Dump::Counters& c = side.counters;
        line(1, "counted");
        line(2, fmt::format("from the module: {} batches with {} records{}; {} batches refused",
                            c.batches, c.records, more, c.refusedBatches));
        line(2, fmt::format("calls of clients: {}, of which {} failed; deaths of clients: {}",
                            c.calls, c.failedCalls, c.deaths));
    }

    void addRecipients(const Dump::Recipients& recipients) {
        std::string text = "death recipients: ";
        text += !recipients.shared ? "not told" : (*recipients.shared ? "one for all" : "none");
        if (recipients.own && !recipients.own->empty()) {
            text += fmt::format(", own ones of processes {}", fmt::join(*recipients.own, ", "));
        }
        line(1, text);
    }

    void addEnvironment(const Dump::Environment& side) {
        addClients(side);
        addCounters(side, "");
        addRecipients(side.recipients);
    }

    void addRequest(const Dump::Request& request) {
        std::string text = fmt::format("{} of process {}: {}", pair(request), request.pid,
                                       latency(request.latencyNs));
        if (request.askedLatencyNs != request.latencyNs) {
            text += fmt::format(", asked for {}", latency(request.askedLatencyNs));
        }
        if (request.noWake) text += ", no wake";
        if (!request.name.empty()) text += fmt::format(", name '{}'", printable(request.name));
        std::string params;
        for (const auto& param : request.params) {
            params += fmt::format("{}{}", params.empty() ? "" : ",", param.value_or(NAN));
        }
        if (params != "0,0,0,0") text += fmt::format(", parameters {}", params);
        line(2, text);
    }

    std::string told(const Dump::Told& told) const {
        return fmt::format("{}{}, answer {}, {}", told.call,
                           told.latencyNs ? " " + latency(*told.latencyNs) : "", told.answer,
                           ago(told.atNs));
    }

    void addPair(const Dump::Merged& merged) {
        std::string text = fmt::format("{}: {}", pair(merged),
                                       merged.enabled ? "enabled in the module" : "not enabled");
        if (!merged.requests) {
            text += ", requests not told";
        } else {
            text += fmt::format(", {} request{}", *merged.requests,
                                *merged.requests == 1 ? "" : "s");
        }
        if (merged.latencyNs) text += ", merged latency " + latency(*merged.latencyNs);
        line(2, text);
        line(3, "the module was told " + (merged.told ? told(*merged.told) : "nothing"));
        if (!merged.recorded) return;
        line(3, fmt::format("recorded as enabled by process {}, {}{}", merged.recorded->pid,
                            latency(merged.recorded->latencyNs),
                            merged.recorded->noWake ? ", no wake" : ""));
    }

    void addPast(const Dump::Past& past) {
        std::string text = fmt::format("{}: process {} {}", ago(past.atNs), past.pid, past.call);
        if (past.activity) text += " " + pair({*past.activity, past.eventType.value_or(0)});
        if (past.askedLatencyNs) text += " " + latency(*past.askedLatencyNs);
        if (past.told) {
            text += ", module " + *past.told;
            if (past.toldLatencyNs) text += " " + latency(*past.toldLatencyNs);
            if (past.answer) text += fmt::format(" = {}", *past.answer);
        }
        line(2, text + (past.result == 0 ? ": done" : ": refused"));
    }

    void addActivity(const Dump::Activity& side) {
        addClients(side);
        addList("requests, in order of making", side.requests,
                [this](const auto& request) { addRequest(request); });
        addList("pairs", side.pairs, [this](const auto& merged) { addPair(merged); });
        addList("orphans, enabled in the module though nobody asks", side.orphans,
                [this](const auto& orphan) {
                    line(2, fmt::format("{}, which is withdrawn by: activityctl sweep {}:{}",
                                        mOutput.bold(pair(orphan)), orphan.activity,
                                        orphan.eventType));
                });
        addList("left behind, requests of processes without a callback here", side.leftBehind,
                [this](const auto& left) {
                    line(2, fmt::format("{} of process {}", mOutput.bold(pair(left)), left.pid));
                });
        addList("barriers", side.barriers, [this](const auto& barrier) {
            line(2, fmt::format("{} of process {}: nothing from before {}", pair(barrier),
                                barrier.pid, mOutput.timestamp(barrier.timestamp)));
        });
        const auto size = [](const std::optional<uint64_t>& number) {
            return number ? fmt::format("{}", *number) : "not told";
        };
        line(1, fmt::format("report list: {}; last events: {}", size(side.reportList),
                            size(side.lastEvents)));
        const Dump::Counters& c = side.counters;
        addCounters(side,
                    fmt::format(" ({} routed, {} below a barrier), {} extended ones with {}",
                                c.routed, c.belowBarrier, c.extendedBatches, c.extendedRecords));
        line(2, fmt::format("calls of the module that it refused: {}", c.nativeRefusals));
        addRecipients(side.recipients);
        addList("history, oldest first", std::optional(side.history),
                [this](const auto& past) { addPast(past); });
    }

    const Dump& mDump;
    const std::vector<std::string>& mNames;
    const Output& mOutput;
    std::string mText;
};

}  // namespace

ExitStatus dump(const Options& options, Output& output) {
    const auto service =
            std::make_shared<Service>(options.instance, options.version, options.waitNs);
    Dump dump = readDumpInTime(service);
    const auto names = activityNamesInTime(service, dump);
    addNames(dump.json, names);
    output.print("dump", dump.json, Report(dump, names, output).text(service->fullName()));
    return kOk;
}

}  // namespace activityctl
