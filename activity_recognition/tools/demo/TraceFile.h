// SPDX-License-Identifier: Apache-2.0
// The account for trace viewers: JSON trace events, as docs/schemas/trace.json describes them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <stage/Stage.h>

#include "ScenarioFile.h"

namespace demo {

class TraceFile {
  public:
    // startNs: time 0, of CLOCK_MONOTONIC.
    TraceFile(const ScenarioFile& scenario, int64_t startNs)
        : mScenario(scenario), mStartNs(startNs) {}

    // Microseconds since the start.
    double microseconds(int64_t ns) const { return double(ns - mStartNs) / 1e3; }

    // A process that has a lane of its own; what it is, in a few words. Before anything of it.
    void addProcess(pid_t pid, const std::string& name, const std::string& what);
    void add(pid_t pid, const nlohmann::json& line);  // of the module's trace, or a client's output
    void addLog(pid_t pid, const support::LineSource::Line& line);
    void addDeath(pid_t pid, int64_t ns);

    // All that has been added, in order of time.
    nlohmann::json finish();

  private:
    struct Entry {
        int64_t ns;
        pid_t pid;
        nlohmann::json line;
    };
    struct Batch {
        std::string slot;
        nlohmann::json records;
        pid_t pid;
        int64_t ns;
    };
    // Threads are no more than rows of a process.
    enum Row { kCalls = 1, kBatches, kLog };

    void convertModule(const Entry& entry);
    void convertClient(const Entry& entry);

    nlohmann::json& push(const char* phase, const std::string& category, const std::string& name,
                         pid_t pid, Row row, int64_t ns);
    void instant(const std::string& category, const std::string& name, const Entry& entry, Row row);
    void slice(const std::string& category, const std::string& name, const Entry& entry);
    // What stands for a while: ends what stood under this name, and begins another.
    void begin(const std::string& category, const std::string& pair, const Entry& entry,
               const nlohmann::json& latencyNs);
    void end(const std::string& category, const std::string& pair, const Entry& entry);
    void endAll(const Entry& entry);
    void flow(const Entry& delivery);
    void clock(const Entry& entry);

    const ScenarioFile& mScenario;
    const int64_t mStartNs;
    std::vector<Entry> mEntries;
    nlohmann::json mMetadata = nlohmann::json::array();
    nlohmann::json mEvents = nlohmann::json::array();
    std::map<std::pair<pid_t, std::string>, int> mStanding;  // to the id of the begin
    std::map<pid_t, size_t> mLastSlice;
    std::vector<Batch> mBatches;
    int mIds = 0;
    std::optional<int64_t> mOpenedNs;  // of the module's clock
};

}  // namespace demo
