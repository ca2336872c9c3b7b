// SPDX-License-Identifier: Apache-2.0
#include "Player.h"

#include <math.h>

#include <algorithm>

#include <utils/Timers.h>

namespace ar_simulator {

// 146 years.
static constexpr int64_t kClockEndNs = INT64_C(1) << 62;

void Clock::start(double speed) {
    mEpochNs = systemTime(SYSTEM_TIME_MONOTONIC);
    mSpeed = speed;
}

int64_t Clock::nowNs() const {
    if (isVirtual()) return mEpochNs;
    const auto sinceNs = static_cast<double>(systemTime(SYSTEM_TIME_MONOTONIC) - mEpochNs);
    const int64_t leftNs = kClockEndNs - mEpochNs;
    return mEpochNs + static_cast<int64_t>(std::min(sinceNs * mSpeed, static_cast<double>(leftNs)));
}

int64_t Clock::untilNs(int64_t timeNs) const {
    const int64_t nowTimeNs = nowNs();
    if (timeNs <= nowTimeNs) return 0;
    if (timeNs > kClockEndNs || isVirtual()) return INT64_MAX;
    // Rounded up: waking early only means to wait again.
    const double leftNs = ceil(static_cast<double>(timeNs - nowTimeNs) / mSpeed);
    return leftNs < 9e18 ? static_cast<int64_t>(leftNs) : INT64_MAX;
}

bool Clock::moveTo(int64_t timeNs) {
    if (timeNs <= mEpochNs || timeNs > kClockEndNs) return false;
    mEpochNs = timeNs;
    return true;
}

void Player::start(const Scenario* scenario, int64_t nowNs) {
    mScenario = scenario;
    mNext = 0;
    mOriginNs = nowNs;
}

bool Player::add(const std::vector<Step>& steps, int64_t nowNs) {
    if (mAdded.size() + steps.size() > kMaxSteps) return false;
    for (const Step& step : steps) mAdded.emplace(nowNs + step.offsetNs, step);
    return true;
}

bool Player::next(int64_t nowNs, Step* taken) {
    while (nextDueNs() <= nowNs) {
        const auto added = mAdded.begin();
        if (added != mAdded.end() && added->first < nextOfScenarioNs()) {
            *taken = added->second;
            taken->event.timestamp = added->first;
            mAdded.erase(added);
            return true;
        }
        if (mNext == mScenario->steps.size()) {
            mNext = 0;
            mOriginNs += mScenario->periodNs;
            continue;
        }
        const Step& step = mScenario->steps[mNext++];
        if (step.kind == Kind::kWait) {
            mReleased.erase(mReleased.find(step.event.name));
            // Time in the file stood still since the wait was reached.
            mOriginNs = nowNs - step.offsetNs;
            continue;
        }
        *taken = step;
        taken->event.timestamp = mOriginNs + step.offsetNs;
        return true;
    }
    return false;
}

int64_t Player::nextDueNs() const {
    if (mScenario == nullptr) return INT64_MAX;
    return std::min(nextOfScenarioNs(), mAdded.empty() ? INT64_MAX : mAdded.begin()->first);
}

bool Player::stands() const {
    if (mScenario == nullptr) return false;
    if (mNext == mScenario->steps.size()) return mScenario->loops;
    const Step& step = mScenario->steps[mNext];
    return step.kind == Kind::kWait && mReleased.count(step.event.name) == 0;
}

int64_t Player::nextOfScenarioNs() const {
    if (mScenario->steps.empty()) return INT64_MAX;
    if (mNext == mScenario->steps.size()) {
        return mScenario->loops ? mOriginNs + mScenario->periodNs : INT64_MAX;
    }
    return stands() ? INT64_MAX : mOriginNs + mScenario->steps[mNext].offsetNs;
}

}  // namespace ar_simulator
