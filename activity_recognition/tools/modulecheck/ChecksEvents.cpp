// SPDX-License-Identifier: Apache-2.0
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Checks.h"
#include "Subject.h"

namespace modulecheck {
namespace {

constexpr int64_t kSecondNs = 1000000000;
constexpr int64_t kLongNs = 3600 * kSecondNs;
constexpr int kThreads = 4;
constexpr int kRounds = 200;

}  // namespace

void checkEvents(Probe& probe) {
    Subject subject;
    if (!subject.start(probe)) return;
    Recorder& recorder = Recorder::instance();
    const Calls calls{probe, subject};
    // Each of these is a time, not an event: what must not come cannot be waited for.
    const auto sleep = [&](Seconds time) {
        probe.waits(time);
        std::this_thread::sleep_for(time);
    };
    const auto listen = [&] { sleep(probe.options.listen / 3); };

    probe.stage("event.enabled", "listening with one pair of each side enabled");
    if (subject.activity != nullptr && subject.activities > 0) {
        calls.enable(Kind::kExtended, 0, 1, kSecondNs);
    }
    if (subject.environment != nullptr && subject.environments > 0) {
        calls.init(0, "");
        calls.enable(Kind::kEnvironment, 0, 1, 0);
    }
    listen();
    calls.flush();

    probe.stage("event.array", "listening with everything enabled");
    calls.enableAll(0);
    listen();
    calls.flush();
    recorder.waitForBatch(0, probe.options.listen);

    probe.stage("event.disabled", "listening with everything disabled");
    calls.disableAll();
    calls.flush();
    if (recorder.batches() > 0) probe.exercised("event.disabled");
    listen();
    calls.flush();
    sleep(std::max<Seconds>(probe.options.listen / 3, Seconds(0.4)));
    if (recorder.batches() == 0) {
        probe.note(
                "no events came: nothing is known of the rules about them; --listen waits longer");
    }
}

void checkLatency(Probe& probe) {
    Subject subject;
    if (!subject.start(probe)) return;
    Recorder& recorder = Recorder::instance();
    const Calls calls{probe, subject};
    const auto watchTime = [&](Seconds time, const std::function<bool(int64_t newest)>& done) {
        probe.waits(time);
        const auto end = Recorder::Clock::now() + time;
        while (Recorder::Clock::now() < end) {
            const int64_t newest = subject.newestTime();
            recorder.sawTime(newest);
            if (done(newest) || recorder.waitForPromised(Seconds(0.01))) return;
        }
    };

    // What a long latency has held back is due when a short one takes its place.
    probe.stage("latency.kept", "waiting for records to be held back");
    calls.enableAll(kLongNs);
    const int64_t before = subject.newestTime();
    watchTime(probe.options.listen, [&](int64_t newest) { return newest > before; });
    if (recorder.batches() == 0 && subject.newestTime() <= before) return;
    probe.stage("latency.kept", "waiting for records to come in time");
    calls.enableAll(kSecondNs);
    recorder.promise(Seconds(1));
    const auto never = [](int64_t) { return false; };
    watchTime(Seconds(1) + probe.options.tolerance + Seconds(0.1), never);
    // Then what is held still says how late it is.
    calls.flush();
    watchTime(probe.options.listen, never);
}

void checkThreads(Probe& probe) {
    Subject subject;
    if (!subject.start(probe)) return;
    const bool hasActivities = subject.activity != nullptr && subject.activities > 0;
    const bool hasEnvironments = subject.environment != nullptr && subject.environments > 0;
    const Calls calls{probe, subject};
    if (hasEnvironments) calls.init(0, "");
    probe.stage("threads.calls", "calls from several threads");
    const auto work = [&](int thread) {
        const auto expect = [&](const char* slot, int result) {
            if (result != 0) {
                probe.finding("threads.calls", fmt::format("{} returned {}", slot, result));
            }
        };
        const uint32_t type = static_cast<uint32_t>(1 + thread % 2);
        char** list = nullptr;
        ar_context_event* events = nullptr;
        for (int i = 0; i < kRounds; ++i) {
            if (hasActivities) {
                const auto& table = *subject.activity;
                const int64_t latencyNs = i % 3 * kSecondNs;
                const Kind kind = i % 10 == 0 ? Kind::kExtended : Kind::kPlain;
                expect("enable", calls.enable(kind, 0, type, latencyNs));
                if (table.get_supported_activities_list(&list) < 1) expect("list", -1);
                if (table.get_current_activity(&events) < 0) expect("current", -1);
                expect("flush", calls.flush());
                expect("disable", calls.disable(Kind::kPlain, 0, type));
            }
            if (hasEnvironments && i % 10 == 0) {
                const auto& table = *subject.environment;
                expect("enable_environment", calls.enable(Kind::kEnvironment, 0, type, 0));
                if (table.get_current_environment(&events) < 0) expect("current", -1);
                expect("disable_environment", calls.disable(Kind::kEnvironment, 0, type));
            }
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
    if (hasActivities || hasEnvironments) probe.exercised("threads.calls");
}

}  // namespace modulecheck
