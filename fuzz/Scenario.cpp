// SPDX-License-Identifier: Apache-2.0
// Any text as a scenario: refused for the line and the reason that is named, or accepted within the
// documented bounds and played. The player runs on a clock of ours, so that nothing is waited for.
#define LOG_TAG "fuzz_scenario"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include <log/log.h>

#include "Player.h"
#include "Scenario.h"

using namespace ar_simulator;

namespace {

constexpr int64_t kLastNs = 1000000 * kNsPerSecond;
constexpr int kPlayed = 3000;  // steps: more than a round of most scenarios

#define CHECK(holds) LOG_ALWAYS_FATAL_IF(!(holds), "It does not hold that %s", #holds)

// error: without the file, which it must begin with.
bool readText(const std::string& text, Scenario* scenario, std::string* error) {
    static const int file = memfd_create("scenario", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    CHECK(ftruncate(file, 0) == 0);
    CHECK(pwrite(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    if (readScenario(path.c_str(), scenario, error)) return true;
    CHECK(error->compare(0, path.size() + 1, path + ":") == 0);
    error->erase(0, path.size() + 1);
    return false;
}

// The line is to blame: without it and what follows all is well, with it nothing else is.
void checkRefusal(const std::string& text, const std::string& error) {
    char* reason = nullptr;
    size_t begin = 0, end = 0;  // of the line
    for (auto line = strtoul(error.c_str(), &reason, 10); line > 0; --line) {
        begin = end;
        CHECK(begin < text.size());
        end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    }
    CHECK(end > 0 && strncmp(reason, ": ", 2) == 0 && strlen(reason) > 2);
    Scenario scenario;
    std::string same, other;
    CHECK(!readText(text.substr(0, end), &scenario, &same) && same == error);
    CHECK(readText(text.substr(0, begin), &scenario, &other) ||
          other.find("'loop' starts again before the last record") != std::string::npos);
}

void checkBounds(const Scenario& scenario) {
    for (const auto& list : {scenario.activities, scenario.environments}) {
        CHECK(list.size() >= 1 && list.size() <= 64);
        CHECK(std::set<std::string>(list.begin(), list.end()).size() == list.size());
        for (const std::string& name : list) CHECK(name.size() >= 1 && name.size() <= 31);
    }
    int64_t lastNs = 0;
    int records = 0;
    for (const Step& step : scenario.steps) {
        CHECK(step.offsetNs >= lastNs && step.offsetNs <= kLastNs);
        lastNs = step.offsetNs;
        CHECK(memchr(step.event.name, '\0', sizeof(step.event.name)) != nullptr);
        if (step.kind == Kind::kWait) continue;
        CHECK(step.kind != Kind::kAnswer || step.fault->calls >= 1);
        if (const Fault* const fault = step.fault.get()) {
            CHECK(fault->batch >= kHeld && fault->batch <= 10000);
            CHECK(fault->threads >= 1 && fault->threads <= 16);
            CHECK(fault->batch != kHeld || fault->threads == 1);
            CHECK(fault->answer >= -4095 && fault->answer <= 1000);
        }
        if (++records; step.kind == Kind::kAnswer) continue;
        const bool isActivity = step.kind != Kind::kEnvironment;
        const auto& list = isActivity ? scenario.activities : scenario.environments;
        CHECK(step.event.activity < list.size());
        CHECK(step.event.event_type >= 1 && (step.event.event_type <= 2 || !isActivity));
        CHECK(step.kind != Kind::kPlain || list[step.event.activity] == step.event.name);
    }
    CHECK(records <= 1000000);
    CHECK(scenario.speed == kStep || (scenario.speed >= 0.001 && scenario.speed <= 10000));
    CHECK(scenario.periodNs > 0 && scenario.periodNs >= lastNs);
    CHECK(scenario.periodNs <= kLastNs + kNsPerSecond);
}

// Against what the documentation says of records, waits and rounds. Now and then the clock is late,
// so that much is due at once.
void play(const Scenario& scenario) {
    Player player;
    int64_t nowNs = INT64_C(1) << 60, originNs = nowNs;
    Step taken = {};
    const auto nothingComes = [&] { return !player.next(nowNs, &taken); };
    const auto reach = [&](int64_t timeNs) {
        if (timeNs <= nowNs) return;
        CHECK(nothingComes() && player.nextDueNs() == timeNs);
        CHECK(!player.stands() || scenario.loops);
        nowNs = timeNs - 1;
        CHECK(nothingComes());
        nowNs = timeNs;
    };
    player.start(&scenario, nowNs);
    auto step = scenario.steps.begin();
    for (int left = scenario.steps.empty() ? 0 : kPlayed; left > 0; --left, ++step) {
        if (step == scenario.steps.end()) {
            if (!scenario.loops) break;
            step = scenario.steps.begin();
            reach(originNs += scenario.periodNs);
        }
        if (step->kind == Kind::kWait) {
            CHECK(nothingComes() && player.stands() && player.nextDueNs() == INT64_MAX);
            player.release(step->event.name);
            originNs = nowNs - step->offsetNs;
            continue;
        }
        reach(originNs + step->offsetNs);
        if (left % 64 == 0) nowNs += kNsPerSecond;
        CHECK(player.next(nowNs, &taken));
        const ar_context_event& event = taken.event;
        CHECK(event.timestamp == originNs + step->offsetNs && event.timestamp <= nowNs);
        CHECK(taken.kind == step->kind && event.activity == step->event.activity);
        CHECK(strcmp(event.name, step->event.name) == 0 && taken.fault == step->fault);
    }
    if (step == scenario.steps.end() && !scenario.loops) {
        CHECK(nothingComes() && player.nextDueNs() == INT64_MAX);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    Scenario scenario;
    std::string error;
    int64_t grantNs = 0;
    CHECK(!readGrant(text, &grantNs).empty() || (grantNs >= 0 && grantNs <= kLastNs));
    if (readText(text, &scenario, &error)) {
        checkBounds(scenario);
        play(scenario);
    } else {
        checkRefusal(text, error);
    }
    return 0;
}
