// SPDX-License-Identifier: Apache-2.0
// One check at work: runs in a child process, so that a crash or a hang is a finding like others.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include <zaltho/activity_recognition_native.h>

#include "Rules.h"

namespace modulecheck {

using Seconds = std::chrono::duration<double>;

struct Options {
    std::string path;   // of the file, or
    std::string id;     // what hw_get_module is asked for
    Seconds listen;     // how long events are waited for
    Seconds timeout;    // after which a call hangs
    Seconds tolerance;  // by which a record may exceed its latency
};

// The child's line to the report. Thread-safe.
class Probe {
  public:
    Probe(int fd, const Options& options) : options(options), mFd(fd) {}

    // What comes next; a crash or hang from here on breaks this rule. It hangs when nothing else
    // comes next within the timeout,
    void stage(const char* rule, const std::string& doing);
    // or, from here on, within that much more.
    void waits(Seconds time);
    void finding(const char* rule, const std::string& seen) { send('F', rule, seen); }
    void note(const std::string& text) { send('N', "", text); }
    // The rule has been put to the test.
    void exercised(const char* rule);

    const Options& options;

  private:
    void send(char kind, const char* rule, const std::string& text);

    const int mFd;
    std::mutex mLock;
    std::set<std::string> mExercised;  // and sent
};

using Check = std::function<void(Probe&)>;

// Runs the check in a child and adds what it says, and how it ended, to the report. Whatever way
// this process ends, the child and what it started end with it.
void runInChild(const Check& check, const Options& options, Report* report);

// Whether this process could read the bytes. Asks the kernel, so any pointer will do.
bool isReadable(const void* start, size_t size);
// The text up to its NUL, if there is one within max bytes and all of it is readable.
std::optional<std::string> readText(const char* start, size_t max);

// Parameters that end where a page ends, so that reading on faults, and that fault altogether once
// the call is over. A fault in them is reported as what it is.
class GuardedParams {
  public:
    GuardedParams(Probe& probe, const double (&params)[4], const std::string& name);
    // Poisons; the address is never used again.
    ~GuardedParams();
    const other_params* get() const { return mParams; }

  private:
    other_params* mParams = nullptr;
};

}  // namespace modulecheck
