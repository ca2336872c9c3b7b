// SPDX-License-Identifier: Apache-2.0
// What the process benchmark's servers and clients share: the batch, how a server takes its orders,
// and how its clients come to be.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// Ends the process, with errno's text if there is one.
[[noreturn]] void fail(const std::string& what);
inline void check(bool holds, const char* what) {
    if (!holds) fail(what);
}

struct Record {  // as large as a native module's and as a client's
    uint32_t eventType, activity;
    int64_t timestamp;
    uint32_t extra, reserved;
};

// Alternates among the first kPairs pairs: activities 0, 0, 1, 1 with event types 1, 2, 1, 2.
constexpr uint32_t kPairs = 4;
const std::vector<Record>& batch();

extern volatile int64_t consumed;
// What every client does with a delivery, whatever brought it: copies it out of the transport's
// buffer and reads every record.
template <typename R>
void consume(const R* begin, size_t count) {
    const std::vector<R> own(begin, begin + count);
    int64_t sum = 0;
    for (const R& record : own) sum += record.timestamp + record.extra;
    consumed = sum;
}

// Child processes that die with this one, at the latest when it ends.
class Clients {
  public:
    // Runs in a fork, before this process has any thread of its own; -1 for the parent. In the
    // child all descriptors above stderr are closed but keep.
    static pid_t fork(int keep = -1);

    void add(pid_t pid) { mPids.push_back(pid); }
    const std::vector<pid_t>& pids() const { return mPids; }

  private:
    std::vector<pid_t> mPids;
};

// CLOCK_MONOTONIC in nanoseconds.
int64_t now();

// Says "ready" with the clients' process ids, then for each line with a number K of stdin calls
// once K times and answers a line with the nanoseconds that each call took. Ends the process with
// stdin.
[[noreturn]] void serve(const std::vector<pid_t>& clients, const std::function<void()>& once);
// As above, with the samples that answer(K) brings.
[[noreturn]] void serveSamples(const std::vector<pid_t>& clients,
                               const std::function<std::vector<int64_t>(int64_t)>& answer);

// The roles; a number is that of the clients. None returns.

// A SOCK_SEQPACKET pair a client: the batch one way, one byte back.
[[noreturn]] void raw(int clients);
// Shared memory and futexes: two copies and two wakes.
[[noreturn]] void floor();
// A small message and a smaller answer over a SOCK_SEQPACKET pair.
[[noreturn]] void ping();
// D-Bus with the batch as one array of bytes, over a socket pair a client or through a broker of
// its own.
[[noreturn]] void busPeers(int clients);
[[noreturn]] void busBroker(int clients);
// HIDL callbacks out of a server that does nothing else. folder: the name space that it opens.
[[noreturn]] void callbacks(int clients, const std::string& folder);
// A HIDL call without arguments to such a server.
[[noreturn]] void call(const std::string& folder);
// Clients of the service found in HIDL_HOST_DIR, that want all pairs of the batch. No samples.
[[noreturn]] void watchers(int clients);
// One that calls enable and disable for as many milliseconds as it is told, every 200 us. A sample
// a call.
[[noreturn]] void enabler();
// Kills clients of the service, from SIGKILL until its log, which comes in through descriptor log,
// tells the end of the cleanup.
[[noreturn]] void deaths(int log);
// Kills the like, from SIGKILL until the hang-up of a socket that the client held besides.
[[noreturn]] void hangups();

}  // namespace bench
