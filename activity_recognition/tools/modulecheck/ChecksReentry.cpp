// SPDX-License-Identifier: Apache-2.0
#include <thread>

#include <fmt/format.h>

#include "Checks.h"
#include "Subject.h"

namespace modulecheck {
namespace {

using Clock = Recorder::Clock;

constexpr int64_t kLongNs = 3600 * INT64_C(1000000000);

// What clients do that call from inside their callbacks.
class Reentry {
  public:
    Reentry(Probe& probe, const Subject& subject)
        : mProbe(probe), mSubject(subject), mCalls{probe, subject} {}

    // False without events.
    bool findPace();
    // Calls on the thread of the next callback of a side (or, if not nested, on another thread
    // meanwhile). False when there was none.
    bool inNextCallback(bool ofEnvironment, bool nested);
    // Calls from inside the callbacks of slots that deliver on their caller's thread.
    void inCallbacksHere();

  private:
    void dwell();
    void callAll(const char* rule);

    Probe& mProbe;
    const Subject& mSubject;
    const Calls mCalls;
    Recorder& mRecorder = Recorder::instance();
    Seconds mLongest{};  // that dwell() takes
    bool mHeld = false;  // records, as far as can be told
};

bool Reentry::findPace() {
    mProbe.stage("reentry.calls", "waiting for events");
    mCalls.enableAll(0);
    mCalls.flush();
    if (!mRecorder.waitForBatch(0, mProbe.options.listen)) return false;
    const auto begin = Clock::now();
    mHeld = mRecorder.waitForAdvance(mRecorder.advances() + 1, mProbe.options.listen);
    const Seconds took = Clock::now() - begin;
    mLongest = mHeld ? took + Seconds(0.02) : mProbe.options.listen / 3;
    return true;
}

// Until the module has new records to hold back: its current state tells, or else the time that two
// took before.
void Reentry::dwell() {
    mProbe.waits(mLongest);
    const auto end = Clock::now() + mLongest;
    const int64_t before = mSubject.newestTime();
    while (Clock::now() < end) {
        const bool news = mSubject.newestTime() > before;
        // Behind the news too: a module may note what is current before it holds it back.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (!news) continue;
        mHeld = true;
        return;
    }
}

void Reentry::callAll(const char* rule) {
    const auto stage = [&](const char* slot) {
        mProbe.stage(rule, fmt::format("{}, called {}", slot,
                                       rule == std::string("reentry.calls")
                                               ? "from inside a callback"
                                               : "while a callback was running elsewhere"));
    };
    const auto expect = [&](const char* slot, int result) {
        if (result != 0) mProbe.finding(rule, fmt::format("{} returned {}", slot, result));
    };
    stage("a query");
    char** list = nullptr;
    if (mSubject.activities > 0) mSubject.activity->get_supported_activities_list(&list);
    mSubject.newestTime();
    if (mSubject.activities > 0) {
        stage("enable_activity_event");
        expect("enable_activity_event", mCalls.enable(Kind::kPlain, 0, 1, kLongNs));
    }
    stage("an extended enable");
    mCalls.enableAll(kLongNs);
    dwell();
    stage("an extended enable with records held back");
    mCalls.enableAll(kLongNs / 2);
    dwell();
    stage("flush");
    expect("flush", mCalls.flush());
    dwell();
    if (mSubject.activities > 0) {
        stage("disable_activity_event");
        expect("disable_activity_event", mCalls.disable(Kind::kPlain, 0, 2));
    }
    stage("a disable");
    mCalls.disableAll();
    if (mSubject.environments > 0) {
        stage("exit_environment");
        expect("exit_environment", mCalls.exit(0, ""));
    }
}

bool Reentry::inNextCallback(bool ofEnvironment, bool nested) {
    std::mutex lock;
    std::condition_variable changed;
    bool entered = false, over = nested, left = false;
    mRecorder.inNextCallback(ofEnvironment, [&] {
        if (nested) callAll("reentry.calls");
        std::unique_lock<std::mutex> guard(lock);
        entered = true;
        changed.notify_all();
        changed.wait(guard, [&] { return over; });
        left = true;
        changed.notify_all();
    });
    mProbe.stage("reentry.calls", "waiting for a callback");
    mProbe.waits(mProbe.options.listen);
    // A thread, for a module that calls back on the thread that enables or flushes.
    std::thread starter([&] {
        mCalls.enableAll(0);
        mCalls.flush();
    });
    std::unique_lock<std::mutex> guard(lock);
    const auto isEntered = [&] { return entered; };
    bool came = changed.wait_for(guard, mProbe.options.listen, isEntered);
    if (!came && !mRecorder.dropAction()) {
        // It is at work in there; then this is where it hangs.
        changed.wait(guard, isEntered);
        came = true;
    }
    if (came && !nested) {
        guard.unlock();
        callAll("threads.blocked");
        mProbe.exercised("threads.blocked");
        guard.lock();
        over = true;
        changed.notify_all();
        mProbe.stage("threads.blocked", "the end of the callback");
    }
    if (came) changed.wait(guard, [&] { return left; });
    guard.unlock();
    starter.join();
    if (came && nested) mProbe.exercised("reentry.calls");
    if (came && nested && mHeld) mProbe.exercised("reentry.nested");
    return came;
}

void Reentry::inCallbacksHere() {
    const std::function<void()> slots[] = {[&] { mCalls.enableAll(kLongNs / 2); },
                                           [&] { mCalls.flush(); }, [&] { mCalls.disableAll(); }};
    for (const auto& slot : slots) {
        mProbe.stage("reentry.nested", "waiting for records to be held back");
        mCalls.enableAll(kLongNs);
        dwell();
        mProbe.stage("reentry.nested", "a slot with records held back");
        Recorder::inNextCallbackHere([&] { callAll("reentry.calls"); });
        slot();
        Recorder::inNextCallbackHere(nullptr);
    }
}

}  // namespace

void checkReentry(Probe& probe) {
    Subject subject;
    if (!subject.start(probe)) return;
    Reentry reentry(probe, subject);
    if (!reentry.findPace()) return;
    for (const bool environment : {false, true}) {
        if ((environment ? subject.environments : subject.activities) == 0) continue;
        if (reentry.inNextCallback(environment, true)) reentry.inNextCallback(environment, false);
    }
    reentry.inCallbacksHere();
}

}  // namespace modulecheck
