// SPDX-License-Identifier: Apache-2.0
#include "TraceFile.h"

#include <algorithm>

#include "Timeline.h"

namespace demo {
namespace {

using nlohmann::json;

// Long enough to be hit with a pointer; shorter where the next one follows.
constexpr double kSliceMicroseconds = 100;

// The module's slot whose batches a client's callback tells of.
std::string slotOf(const std::string& callback) {
    if (callback.find("Environment") != std::string::npos) return "environment_changed";
    return callback.find("Extend") != std::string::npos ? "activity_extend_changed"
                                                        : "activity_changed";
}

}  // namespace

void TraceFile::addProcess(pid_t pid, const std::string& name, const std::string& what) {
    const auto tell = [this, pid](const char* of, Row row, const json& arguments) {
        mMetadata.push_back(
                {{"ph", "M"}, {"name", of}, {"pid", pid}, {"tid", int(row)}, {"args", arguments}});
    };
    const bool module = mMetadata.empty();
    tell("process_sort_index", kCalls, {{"sort_index", mMetadata.size()}});
    tell("process_name", kCalls, {{"name", name}});
    tell("process_labels", kCalls, {{"labels", what}});
    tell("thread_name", kCalls, {{"name", "calls"}});
    tell("thread_name", kBatches, {{"name", module ? "batches" : "deliveries"}});
    if (module) tell("thread_name", kLog, {{"name", "log"}});
}

void TraceFile::add(pid_t pid, const json& line) {
    mEntries.push_back({line.at("t"), pid, line});
}

void TraceFile::addLog(pid_t pid, const support::LineSource::Line& line) {
    if (const std::string told = toldByLog(line); !told.empty()) {
        mEntries.push_back({line.ns, pid, {{"log", told}}});
    }
}

void TraceFile::addDeath(pid_t pid, int64_t ns) {
    mEntries.push_back({ns, pid, {{"what", "killed with SIGKILL"}}});
}

json& TraceFile::push(const char* phase, const std::string& category, const std::string& name,
                      pid_t pid, Row row, int64_t ns) {
    mEvents.push_back({{"ph", phase},
                       {"cat", category},
                       {"name", name},
                       {"pid", pid},
                       {"tid", int(row)},
                       {"ts", microseconds(ns)}});
    return mEvents.back();
}

void TraceFile::instant(const std::string& category, const std::string& name, const Entry& entry,
                        Row row) {
    push("i", category, name, entry.pid, row, entry.ns)["s"] = "p";
}

void TraceFile::slice(const std::string& category, const std::string& name, const Entry& entry) {
    const double begin = microseconds(entry.ns);
    if (const auto last = mLastSlice.find(entry.pid); last != mLastSlice.end()) {
        json& before = mEvents[last->second];
        before["dur"] = std::min(kSliceMicroseconds, begin - before.at("ts").get<double>());
    }
    mLastSlice[entry.pid] = mEvents.size();
    json records = entry.line.at("events");
    if (category == "batch") {
        // Environment records name their environment in the same field as activities.
        const bool environment = name == "environment_changed";
        const std::string what = environment ? "environment" : "activity";
        const auto& names = environment ? mScenario.environments : mScenario.activities;
        for (json& record : records) {
            const size_t id = record.at("activity");
            record.erase("activity");
            record[what] = id;
            if (id < names.size()) record[what + "_name"] = names[id];
        }
    }
    json& added = push("X", category, name, entry.pid, kBatches, entry.ns);
    added["dur"] = kSliceMicroseconds;
    added["args"] = {{"text", listOf(mScenario, records)}, {"records", records}};
}

void TraceFile::begin(const std::string& category, const std::string& pair, const Entry& entry,
                      const json& latencyNs) {
    end(category, pair, entry);
    json& added = push("b", category, pair, entry.pid, kCalls, entry.ns);
    added["id"] = mStanding[{entry.pid, pair}] = ++mIds;
    added["args"] = {{"latency_ns", latencyNs}};
}

void TraceFile::end(const std::string& category, const std::string& pair, const Entry& entry) {
    const auto standing = mStanding.find({entry.pid, pair});
    if (standing == mStanding.end()) return;
    push("e", category, pair, entry.pid, kCalls, entry.ns)["id"] = standing->second;
    mStanding.erase(standing);
}

void TraceFile::endAll(const Entry& entry) {
    std::vector<std::string> pairs;
    for (const auto& [key, id] : mStanding) {
        if (key.first == entry.pid) pairs.push_back(key.second);
    }
    for (const std::string& pair : pairs) end("request", pair, entry);
}

// From the batch to the delivery that was added last. Which batch a call without records comes from
// cannot be seen.
void TraceFile::flow(const Entry& delivery) {
    const std::string slot = slotOf(delivery.line.at("what"));
    const json& records = delivery.line.at("events");
    if (records.empty()) return;
    const auto brought = [&](const Batch& batch) {
        return batch.slot == slot &&
               std::any_of(batch.records.begin(), batch.records.end(), [&](const json& record) {
                   return record.at("timestamp") == records[0].at("timestamp");
               });
    };
    const auto batch = std::find_if(mBatches.rbegin(), mBatches.rend(), brought);
    if (batch == mBatches.rend()) return;
    ++mIds;
    push("s", "flow", "delivery", batch->pid, kBatches, batch->ns)["id"] = mIds;
    json& there = push("f", "flow", "delivery", delivery.pid, kBatches, delivery.ns);
    there["id"] = mIds;
    there["bp"] = "e";
}

// Virtual time, since the module was opened.
void TraceFile::clock(const Entry& entry) {
    const int64_t ns = entry.line.at("clock");
    if (!mOpenedNs) mOpenedNs = ns;
    json& counter = push("C", "clock", "the module's clock", entry.pid, kCalls, entry.ns);
    counter["args"] = {{"seconds", double(ns - *mOpenedNs) / 1e9}};
}

void TraceFile::convertModule(const Entry& entry) {
    const json& line = entry.line;
    if (line.count("clock")) clock(entry);
    const std::string slot = line.at("native");
    if (line.count("events")) {
        mBatches.push_back({slot, line.at("events"), entry.pid, entry.ns});
        return slice("batch", slot, entry);
    }
    instant("call", toldToModule(mScenario, line), entry, kCalls);
    if (line.value("result", 0) != 0) return;
    if (slot.find("enable_") == 0) {
        begin("enabled", nameOf(mScenario, line), entry, line.at("latency_ns"));
    } else if (slot.find("disable_") == 0) {
        end("enabled", nameOf(mScenario, line), entry);
    }
}

void TraceFile::convertClient(const Entry& entry) {
    const json& line = entry.line;
    const std::string what = line.at("what");
    if (what == "ready") {
        instant("enter", "registered", entry, kCalls);
        for (const json& pair : line.at("enabled")) {
            begin("request", pair.at("pair"), entry, pair.at("latency_ns"));
        }
    } else if (what == "enabled") {
        begin("request", line.at("pair"), entry, line.at("latency_ns"));
    } else if (what == "disabled") {
        end("request", line.at("pair"), entry);
    } else if (what == "end" || what == "killed with SIGKILL") {
        endAll(entry);
        instant(what == "end" ? "leave" : "death", what == "end" ? "left" : what, entry, kCalls);
    } else if (line.count("events")) {
        slice("delivery", what, entry);
        flow(entry);
    }
}

json TraceFile::finish() {
    std::stable_sort(mEntries.begin(), mEntries.end(),
                     [](const Entry& a, const Entry& b) { return a.ns < b.ns; });
    for (const Entry& entry : mEntries) {
        if (entry.line.count("log")) {
            instant("log", entry.line.at("log"), entry, kLog);
        } else if (entry.line.count("native")) {
            convertModule(entry);
        } else {
            convertClient(entry);
        }
    }
    mEntries.clear();
    // A flow's begin stands where its end was found.
    std::stable_sort(mEvents.begin(), mEvents.end(), [](const json& a, const json& b) {
        return a.at("ts").get<double>() < b.at("ts").get<double>();
    });
    mEvents.insert(mEvents.begin(), mMetadata.begin(), mMetadata.end());
    return {{"displayTimeUnit", "ms"}, {"traceEvents", std::move(mEvents)}};
}

}  // namespace demo
