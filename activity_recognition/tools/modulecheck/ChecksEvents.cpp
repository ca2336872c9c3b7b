#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Checks.h"
#include "Subject.h"

namespace modulecheck {
namespace {

constexpr int64_t kSecondNs = 1000000000;
constexpr int kThreads = 4;
constexpr int kRounds = 200;

void flush(const Subject& subject) {
    if (subject.activity != nullptr) subject.activity->flush();
}

}  // namespace

void checkEvents(Probe& probe) {
    Subject subject;
    if (!subject.start(probe)) return;
    Recorder& recorder = Recorder::instance();
    const Calls calls{probe, subject};
    // Each of these is a time, not an event: what must not come cannot be waited for.
    const auto listen = [&] { std::this_thread::sleep_for(probe.options.listen / 3); };

    probe.stage("event.enabled", "listening with one pair of each side enabled");
    if (subject.activity != nullptr && subject.activities > 0) {
        calls.enable(Kind::kExtended, 0, 1, kSecondNs);
    }
    if (subject.environment != nullptr && subject.environments > 0) {
        calls.init(0, "");
        calls.enable(Kind::kEnvironment, 0, 1, 0);
    }
    listen();
    flush(subject);

    probe.stage("event.array", "listening with everything enabled");
    calls.enableAll(0);
    listen();
    flush(subject);
    recorder.waitForBatch(0, probe.options.listen);

    probe.stage("event.disabled", "listening with everything disabled");
    calls.disableAll();
    flush(subject);
    if (recorder.batches() > 0) probe.exercised("event.disabled");
    listen();
    flush(subject);
    std::this_thread::sleep_for(std::max<Seconds>(probe.options.listen / 3, Seconds(0.4)));
    if (recorder.batches() == 0) {
        probe.note(
                "no events came: nothing is known of the rules about them; --listen waits longer");
    }
}

void checkReentry(Probe& probe) {
    Subject subject;
    if (!subject.start(probe) || subject.activity == nullptr || subject.activities == 0) return;
    const activity_interface& table = *subject.activity;
    Recorder& recorder = Recorder::instance();
    const Calls calls{probe, subject};

    const auto callAll = [&](const char* rule) {
        const auto expect = [&](const char* slot, int result) {
            if (result != 0) probe.finding(rule, fmt::format("{} returned {}", slot, result));
        };
        char** list = nullptr;
        ar_context_event* events = nullptr;
        probe.stage(rule, "the queries");
        table.get_supported_activities_list(&list);
        table.get_current_activity(&events);
        probe.stage(rule, "enable_activity_event");
        expect("enable_activity_event", calls.enable(Kind::kPlain, 0, 1, 0));
        probe.stage(rule, "enable_activity_event_extend");
        expect("enable_activity_event_extend", calls.enable(Kind::kExtended, 0, 2, 0));
        probe.stage(rule, "flush");
        expect("flush", table.flush());
        probe.stage(rule, "disable_activity_event");
        expect("disable_activity_event", calls.disable(Kind::kPlain, 0, 2));
    };

    std::mutex lock;
    std::condition_variable changed;
    bool entered = false, over = false;

    recorder.inNextCallback([&] {
        callAll("reentry.calls");
        probe.exercised("reentry.calls");
        probe.exercised("reentry.nested");
        std::lock_guard<std::mutex> guard(lock);
        entered = true;
        changed.notify_all();
    });
    probe.stage("reentry.calls", "waiting for a callback");
    calls.enableAll(0);
    flush(subject);
    std::unique_lock<std::mutex> guard(lock);
    if (!changed.wait_for(guard, probe.options.listen, [&] { return entered; })) {
        // It may be at work in there; then this is where it hangs.
        if (recorder.batches() == 0) return;
        changed.wait(guard, [&] { return entered; });
    }

    entered = false;
    recorder.inNextCallback([&] {
        std::unique_lock<std::mutex> guard(lock);
        entered = true;
        changed.notify_all();
        changed.wait(guard, [&] { return over; });
    });
    guard.unlock();
    // A thread, for a module that calls back on the thread that flushes.
    std::thread starter([&] {
        calls.enableAll(0);
        flush(subject);
    });
    guard.lock();
    if (changed.wait_for(guard, probe.options.listen, [&] { return entered; })) {
        guard.unlock();
        callAll("threads.blocked");
        probe.exercised("threads.blocked");
        guard.lock();
    }
    over = true;
    changed.notify_all();
    guard.unlock();
    probe.stage("threads.blocked", "the end of the callback");
    starter.join();
    // Nothing of this frame may be used by a callback that is yet to come.
    recorder.inNextCallback(nullptr);
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
                expect("flush", table.flush());
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
