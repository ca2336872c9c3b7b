// SPDX-License-Identifier: Apache-2.0
// What a client of the storm does with its life.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace storm {

// Pair p: activity p / 2, event type 1 + p % 2. The simulator plays the first kPlayed of them, and
// never kQuiet: requests for it change what the module is told, and no delivery.
constexpr uint32_t kPlayed = 16, kQuiet = kPlayed;
// What a client asks for that has no pairs of its own. By its number: who has a dead one's asks the
// same.
constexpr uint32_t pairOf(pid_t pid) {
    return static_cast<uint32_t>(pid) % kPlayed;
}

// Where a client writes its notes, a line each: process id, what, CLOCK_MONOTONIC in nanoseconds,
// more.
//   found ready lost        the service; ready: registered, with all its requests
//   call NS                 a two-way call that took so long
//   held                    it is in a callback and stays there
//   A a E e [PAIR TIME]...  a survivor's callback: activity or environment, version 1.1 or 1.0
constexpr int kNotes = 3;

struct Plan {
    enum class Version { k1_1, k1_0, kBoth } version = Version::k1_1;
    enum class Then { kRest, kCall, kHold } then = Then::kRest;  // kHold: in its first callback
    std::vector<uint32_t> pairs;
    bool environment = false;  // registers there too, in the same versions
    bool survives = false;     // tells what it gets; withdraws requests too when it calls

    bool older() const { return version != Version::k1_1; }
    bool newer() const { return version != Version::k1_0; }
};

int64_t now();  // CLOCK_MONOTONIC

// Lives by the plan until it is killed, with every service that comes. To be called in a fork that
// has no threads yet.
[[noreturn]] void live(const Plan& plan);

}  // namespace storm
