// SPDX-License-Identifier: Apache-2.0
// Plays a scenario: says which record comes next and when.
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Scenario.h"

namespace ar_simulator {

// The module's clock: CLOCK_MONOTONIC at start, running speed times as fast from there, or moved on
// by hand; up to an end where it stands still: that leaves room for any offset or distance to be
// added.
class Clock {
  public:
    // kStep: it is moved by hand.
    void start(double speed);
    bool isVirtual() const { return mSpeed == kStep; }
    int64_t nowNs() const;
    // Monotonic time left until timeNs of this clock, at least 0; INT64_MAX: it never comes, or not
    // by itself.
    int64_t untilNs(int64_t timeNs) const;
    // When it is virtual. False when it is there already, or cannot get there.
    bool moveTo(int64_t timeNs);

  private:
    int64_t mEpochNs = 0;  // of a virtual one: now
    double mSpeed = 1;
};

// Not thread-safe. Times are those of the module's clock.
class Player {
  public:
    // The scenario must outlive the playing.
    void start(const Scenario* scenario, int64_t nowNs);
    bool isStarted() const { return mScenario != nullptr; }

    // One `wait name`, met or still to come, is over.
    void release(const std::string& name) { mReleased.insert(name); }

    // Plays these as well, their offsets counted from now, also during a wait. False when too many
    // are to come already.
    bool add(const std::vector<Step>& steps, int64_t nowNs);

    // Takes the next record or answer that is due; its timestamp is the moment at which it was.
    bool next(int64_t nowNs, Step* taken);
    // When to ask again; INT64_MAX before the start, and for a scenario that waits or is over.
    int64_t nextDueNs() const;
    // Whether virtual time has to stand: at a wait, and at the end of a loop's round.
    bool stands() const;

  private:
    int64_t nextOfScenarioNs() const;

    const Scenario* mScenario = nullptr;
    size_t mNext = 0;
    int64_t mOriginNs = 0;  // the moment of offset 0
    std::multiset<std::string> mReleased;
    std::multimap<int64_t, Step> mAdded;  // by the moment at which they are due
};

}  // namespace ar_simulator
