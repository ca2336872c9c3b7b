// SPDX-License-Identifier: Apache-2.0
// JSON trace events, which trace viewers open and activityctl timeline draws;
// docs/schemas/trace.json describes them. Times are CLOCK_MONOTONIC in nanoseconds, in the file
// microseconds since the start.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace trace {

// Of a process; to viewers each is a thread.
enum class Row { kCalls = 1, kBatches, kLog, kPolls };

struct Place {
    pid_t pid;
    Row row;
    int64_t ns;
};

class Trace {
  public:
    explicit Trace(int64_t startNs) : mStartNs(startNs) {}

    // Since the start.
    double microseconds(int64_t ns) const { return double(ns - mStartNs) / 1e3; }

    // A process has a lane of its own, below those that were added before: its name, what it is in
    // a few words, and the names of the rows that it has.
    void addProcess(pid_t pid, const std::string& name, const std::string& what,
                    const std::vector<std::pair<Row, std::string>>& rows);

    // Categories live as long as this does. args: an object, or null for none.
    void instant(const char* category, const std::string& name, const Place& at);
    // From here on, until the next one of this name.
    void counter(const char* category, const std::string& name, const Place& at,
                 const nlohmann::json& values);
    // Lasts until the next one of its row at the longest.
    void slice(const char* category, const std::string& name, const Place& at, int64_t lastsNs,
               const nlohmann::json& args = {});
    // Long enough to be hit with a pointer, for a slice that stands for a moment.
    static constexpr int64_t kMomentNs = 100'000;
    // What stands for a while: ends what the process had under this name, and begins another.
    // Neither can come before the begin that it follows.
    void begin(const char* category, const std::string& name, const Place& at,
               const nlohmann::json& args);
    void end(const std::string& name, const Place& at);
    void endAll(const Place& at);
    // From a slice that holds the one place to one that holds the other.
    void flow(const Place& from, const Place& to);

    // Bytes that all of this takes in memory, roughly.
    size_t size() const { return mSize; }

    // The file: all that was added, in order of time. more: further members of it.
    void write(std::ostream& out, const nlohmann::json& more = nlohmann::json::object()) const;

  private:
    struct Event {
        char phase;
        const char* category;
        std::string name;
        Place at;
        int id;            // of begin, end and flow, otherwise 0
        int64_t lastsNs;   // of a slice
        std::string args;  // as JSON, or nothing
    };
    struct Standing {
        const char* category;
        int id;
        int64_t beginNs;
    };

    Event& push(char phase, const char* category, const std::string& name, const Place& at,
                const nlohmann::json& args = {});
    std::string toLine(const Event& event) const;

    const int64_t mStartNs;
    std::vector<std::string> mMetadata;  // lines
    std::vector<Event> mEvents;
    std::map<std::pair<pid_t, std::string>, Standing> mStanding;
    std::map<std::pair<pid_t, Row>, size_t> mLastSlice;
    size_t mProcesses = 0;
    size_t mSize = 0;
    int mIds = 0;
};

}  // namespace trace
