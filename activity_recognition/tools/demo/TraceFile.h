// SPDX-License-Identifier: Apache-2.0
// The demo's account for trace viewers, as docs/schemas/trace.json describes it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include <stage/Stage.h>
#include <trace/Trace.h>

#include "ScenarioFile.h"

namespace demo {

class TraceFile {
  public:
    // startNs: time 0, of CLOCK_MONOTONIC.
    TraceFile(const ScenarioFile& scenario, int64_t startNs)
        : mScenario(scenario), mTrace(startNs) {}

    // Microseconds since the start.
    double microseconds(int64_t ns) const { return mTrace.microseconds(ns); }

    // A process that has a lane of its own, the module's first; what it is, in a few words. Before
    // anything of it.
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

        trace::Place at(trace::Row row) const { return {pid, row, ns}; }
    };
    struct Batch {
        std::string slot;
        nlohmann::json records;
        trace::Place at;
    };

    void convertModule(const Entry& entry);
    void convertClient(const Entry& entry);

    void slice(const char* category, const std::string& name, const Entry& entry);
    void begin(const char* category, const std::string& pair, const Entry& entry,
               const nlohmann::json& latencyNs);
    void flow(const Entry& delivery);
    void clock(const Entry& entry);

    const ScenarioFile& mScenario;
    trace::Trace mTrace;
    std::vector<Entry> mEntries;
    bool mHasModule = false;
    std::vector<Batch> mBatches;
    std::optional<int64_t> mOpenedNs;  // of the module's clock
};

}  // namespace demo
