// SPDX-License-Identifier: Apache-2.0
#include "TraceFile.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "Timeline.h"

namespace demo {
namespace {

using nlohmann::json;
using trace::Row;

// The module's slot whose batches a client's callback tells of.
std::string slotOf(const std::string& callback) {
    if (callback.find("Environment") != std::string::npos) return "environment_changed";
    return callback.find("Extend") != std::string::npos ? "activity_extend_changed"
                                                        : "activity_changed";
}

}  // namespace

void TraceFile::addProcess(pid_t pid, const std::string& name, const std::string& what) {
    std::vector<std::pair<Row, std::string>> rows{{Row::kCalls, "calls"},
                                                  {Row::kBatches, "deliveries"}};
    if (!std::exchange(mHasModule, true)) {
        rows.back().second = "batches";
        rows.push_back({Row::kLog, "log"});
    }
    mTrace.addProcess(pid, name, what, rows);
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

void TraceFile::slice(const char* category, const std::string& name, const Entry& entry) {
    json records = entry.line.at("events");
    if (entry.line.count("native")) {
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
    mTrace.slice(category, name, entry.at(Row::kBatches), trace::Trace::kMomentNs,
                 {{"text", listOf(mScenario, records)}, {"records", records}});
}

void TraceFile::begin(const char* category, const std::string& pair, const Entry& entry,
                      const json& latencyNs) {
    mTrace.begin(category, pair, entry.at(Row::kCalls), {{"latency_ns", latencyNs}});
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
    if (batch != mBatches.rend()) mTrace.flow(batch->at, delivery.at(Row::kBatches));
}

// Virtual time, since the module was opened.
void TraceFile::clock(const Entry& entry) {
    const int64_t ns = entry.line.at("clock");
    if (!mOpenedNs) mOpenedNs = ns;
    mTrace.counter("clock", "the module's clock", entry.at(Row::kCalls),
                   {{"seconds", double(ns - *mOpenedNs) / 1e9}});
}

void TraceFile::convertModule(const Entry& entry) {
    const json& line = entry.line;
    if (line.count("clock")) clock(entry);
    const std::string slot = line.at("native");
    if (line.count("events")) {
        mBatches.push_back({slot, line.at("events"), entry.at(Row::kBatches)});
        return slice("batch", slot, entry);
    }
    mTrace.instant("call", toldToModule(mScenario, line), entry.at(Row::kCalls));
    if (line.value("result", 0) != 0) return;
    if (slot.find("enable_") == 0) {
        begin("enabled", nameOf(mScenario, line), entry, line.at("latency_ns"));
    } else if (slot.find("disable_") == 0) {
        mTrace.end(nameOf(mScenario, line), entry.at(Row::kCalls));
    }
}

void TraceFile::convertClient(const Entry& entry) {
    const json& line = entry.line;
    const std::string what = line.at("what");
    if (what == "ready") {
        mTrace.instant("enter", "registered", entry.at(Row::kCalls));
        for (const json& pair : line.at("enabled")) {
            begin("request", pair.at("pair"), entry, pair.at("latency_ns"));
        }
    } else if (what == "enabled") {
        begin("request", line.at("pair"), entry, line.at("latency_ns"));
    } else if (what == "disabled") {
        mTrace.end(line.at("pair"), entry.at(Row::kCalls));
    } else if (what == "end" || what == "killed with SIGKILL") {
        const auto at = entry.at(Row::kCalls);
        mTrace.endAll(at);
        mTrace.instant(what == "end" ? "leave" : "death", what == "end" ? "left" : what, at);
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
            mTrace.instant("log", entry.line.at("log"), entry.at(Row::kLog));
        } else if (entry.line.count("native")) {
            convertModule(entry);
        } else {
            convertClient(entry);
        }
    }
    mEntries.clear();
    std::stringstream file;
    mTrace.write(file);
    return json::parse(file);
}

}  // namespace demo
