// SPDX-License-Identifier: Apache-2.0
// A service process, its module and its clients, watched closely: the service's log and the
// module's trace say what each client is owed, and survivors tell what they got.
//
// What stays of a client that died, by the library's rules:
//   version 1.1   no request. If it was still asking when its death was dealt with, that one may
//   stay. version 1.0   its requests: batches are routed to it for ever, and go to version 1.0
//   clients. either        its place in the report list, once an event was routed to it: with each
//   batch each
//                 version 1.0 client gets a call for it, empty ones too. Its last events, barriers
//                 and, for version 1.1, its death recipient. The module is told nothing.
// In memory that is some hundred bytes; kKeptBytes allows for the heap's own need as well.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <stage/Stage.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <unordered_set>

#include "Client.h"

namespace storm {

constexpr size_t kKeptBytes = 2048;
constexpr size_t kSlackBytes = 1 << 20;  // of a heap that as many threads shared

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryTells = false;  // a sanitizer keeps what was freed
#else
constexpr bool kMemoryTells = true;
#endif

struct Event {
    uint32_t pair;
    int64_t time;
    bool operator==(const Event& o) const { return pair == o.pair && time == o.time; }
};
using Events = std::vector<Event>;

struct Survivor {
    pid_t pid;
    Plan plan;
    std::vector<Events> activity, environment;  // calls since the last check
};

struct Footprint {
    size_t descriptors, threads, rssKb, pssKb;
};

[[noreturn]] inline void fail(const std::string& what) {
    throw std::runtime_error(what);
}
inline bool has(const std::string& line, const char* text) {
    return line.find(text) != std::string::npos;
}
inline long numberAfter(const std::string& line, const char* text) {
    const size_t at = line.find(text);
    return at == std::string::npos ? -1 : atol(line.c_str() + at + strlen(text));
}
// Of the sides and versions.
enum Table { kActivity1_1, kActivity1_0, kEnvironment1_1, kEnvironment1_0, kTables };
inline Table tableOf(const std::string& line) {
    const bool environment = has(line, " ENV ") || has(line, "EnvironmentInterface");
    return static_cast<Table>(2 * environment + has(line, "V1_0"));
}

class House {
  public:
    using Words = std::vector<std::string>;

    // logs: folder for logs and trace. runner: what runs the service. user: whom service and
    // clients run as, 0 for this process's own.
    explicit House(const std::string& logs, const Words& runner = {}, uid_t user = 0)
        : mLogs(logs), mLog(logs + "/service.log"), mTrace(logs + "/trace.json"), mUser(user) {
        // All records of a round are due at once, so each side's are one batch. A second of latency
        // takes a millisecond.
        std::string text = "activities a0 a1 a2 a3 a4 a5 a6 a7 a8\nspeed 1000\nloop 1\nwait go\n";
        for (uint32_t p = 0; p < kPlayed; ++p) {
            text += fmt::format("0 activity {} {}\n", p / 2, 1 + p % 2);
        }
        std::ofstream(logs + "/storm.scn") << text << "0 environment 0 1\n";
        support::StageSetup setup;
        setup.scenario = logs + "/storm.scn";
        setup.runner = runner;
        mStage = std::make_unique<support::Stage>(setup);
        if (user != 0) {
            const std::string owner = fmt::format("{}:{}", user, user);
            support::Process chown({"chown", "-R", owner, logs, mStage->folder()}, {});
            if (chown.waitExit() != 0) fail(chown.describe());
        }
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
        mNotes.adopt(android::base::unique_fd(ends[0]));
        mNotes.deepen();
        mNotesEnd.reset(ends[1]);
    }
    ~House() {
        for (pid_t pid : mAlive) ::kill(pid, SIGKILL);
        for (pid_t pid : mAlive) waitpid(pid, nullptr, 0);
    }
    House(const House&) = delete;
    House& operator=(const House&) = delete;

    // Starts the service, again after killService(), and waits until it serves.
    void start() {
        lost.clear();
        found.clear();
        ready.clear();
        mLibrary = {};
        mKilled = false;
        mStage->startService();
        service().err().deepen();
        mStage->serving();
    }
    void killService() {
        mKilled = true;
        service().signal(SIGKILL);
        service().waitExit();
        support::drainOutput();
        pump();
    }

    pid_t spawn(const Plan& plan) {
        const pid_t parent = getpid(), pid = fork();
        if (pid < 0) fail("fork");
        if (pid == 0) {
            dup2(open((mLogs + "/clients.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 2);
            dup2(mNotesEnd.get(), kNotes);
            close_range(kNotes + 1, ~0u, 0);
            if (mUser != 0 && (setgid(mUser) != 0 || setuid(mUser) != 0)) _exit(3);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_DUMPABLE, 1);  // else another user's /proc/self is not its own
            if (getppid() != parent) _exit(3);
            setenv("HIDL_HOST_DIR", mStage->registry().c_str(), 1);
            live(plan);
        }
        mAlive.insert(pid);
        mLibrary.cleaned.erase(pid);
        return pid;
    }
    std::vector<pid_t> spawnReady(size_t count) {
        std::vector<pid_t> pids(count);
        for (pid_t& pid : pids) pid = spawn({});
        awaitReady(pids);
        return pids;
    }
    void awaitReady(const std::vector<pid_t>& pids) {
        await(
                [&] {
                    return std::all_of(pids.begin(), pids.end(),
                                       [&](pid_t pid) { return ready.count(pid) > 0; });
                },
                "clients to be ready");
    }
    void addSurvivors(const std::vector<Plan>& plans) {
        for (const Plan& plan : plans) {  // one by one, so that batches go to the first one first
            survivors.push_back({spawn(plan), plan, {}, {}});
            awaitSurvivors();
        }
        round();  // so that they come first in the report list
    }
    void awaitSurvivors() {
        std::vector<pid_t> pids;
        for (const Survivor& survivor : survivors) pids.push_back(survivor.pid);
        awaitReady(pids);
    }

    // With SIGKILL. Throws when it has ended by itself.
    void kill(pid_t pid) {
        ::kill(pid, SIGKILL);
        int status = 0;
        while (waitpid(pid, &status, 0) != pid && errno == EINTR) continue;
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
            fail(fmt::format("client {} ended by itself, with status {:#x}", pid, status));
        }
        for (std::set<pid_t>* pids : {&mAlive, &ready, &held}) pids->erase(pid);
    }
    // When the service had cleaned up behind it; 0 before.
    int64_t cleanedUp(pid_t pid) const {
        const auto cleaned = mLibrary.cleaned.find(pid);
        return cleaned == mLibrary.cleaned.end() ? 0 : cleaned->second;
    }

    void await(const std::function<bool()>& done, const std::string& what) {
        const auto pumped = [&] {
            pump();
            if (!mKilled && service().hasEnded()) fail("the service has ended");
            return done();
        };
        if (!support::waitUntil(pumped)) fail("waited in vain for " + what + "; " + audit());
    }
    void rest(int64_t ns) {
        const int64_t end = now() + ns;
        await([&] { return now() >= end; }, "its end");
    }

    // One batch of each side; throws unless every survivor gets exactly what it is owed.
    void round() {
        begin();
        await([&] { return isOver(); }, "a batch");
        check();
    }
    void begin() {
        mBatch.clear();
        mEnvironmentBatch.clear();
        mLibrary.ended = false;
        mStage->release("go");
    }
    bool isDelivering() const { return mLibrary.delivering; }
    bool isOver() const {
        return mLibrary.ended && std::all_of(survivors.begin(), survivors.end(), [](const auto& s) {
                   return !s.plan.environment || !s.environment.empty();
               });
    }
    void check() {
        support::drainOutput();
        pump();
        const Survivor* older = nullptr;
        for (const Survivor& survivor : survivors) {
            const std::vector<uint32_t>& pairs = survivor.plan.pairs;
            Events own;
            for (const Event& event : mBatch) {
                if (std::count(pairs.begin(), pairs.end(), event.pair)) own.push_back(event);
            }
            if (own.size() != pairs.size()) fail("a batch lacks a survivor's pair");
            const std::vector<Events> one{own},
                    environment(survivor.plan.environment, mEnvironmentBatch);
            if (survivor.environment != environment ||
                (survivor.plan.newer() && survivor.activity != one)) {
                fail(fmt::format("survivor {} got other calls than one with its events",
                                 survivor.pid));
            }
            if (!survivor.plan.older()) continue;
            if (older == nullptr) checkOlder((older = &survivor)->activity);
            if (survivor.activity != older->activity)
                fail("version 1.0 survivors got different calls");
        }
        for (Survivor& survivor : survivors) survivor.activity = survivor.environment = {};
        for (int64_t ns : std::exchange(mArrivals, {})) deliveries.push_back(ns - mHandedOverNs);
        ++checked;
    }

    // Remembers what the service needs while nobody comes or goes.
    void rememberQuiet() {
        // What served a call goes a second or two after it, and nothing tells when.
        rest(2500000000);
        quiet = footprint();
        for (int i = 0; i < 10; ++i) {
            rest(10000000);
            quiet.descriptors = std::min(quiet.descriptors, footprint().descriptors);
            quiet.threads = std::min(quiet.threads, footprint().threads);
        }
    }
    void rememberMemory() {
        const Footprint seen = footprint();
        quiet = {quiet.descriptors, quiet.threads, seen.rssKb, seen.pssKb};
    }
    // Waits until nothing but what the rules keep is left of those who have died since then.
    void settle() {
        size_t owed[kTables] = {};
        for (const auto& [pid, plan, activity, environment] : survivors) {
            owed[kActivity1_1] += plan.newer();
            owed[kActivity1_0] += plan.older();
            owed[kEnvironment1_1] += plan.newer() && plan.environment;
            owed[kEnvironment1_0] += plan.older() && plan.environment;
        }
        const auto asBefore = [&] {
            const Footprint seen = footprint();
            // Fewer threads when the one that always stays serves.
            return std::equal(owed, owed + kTables, mLibrary.size) &&
                   mLibrary.orders == mLibrary.ordered && seen.descriptors <= quiet.descriptors &&
                   seen.threads <= quiet.threads;
        };
        await(asBefore, fmt::format("{} descriptors, {} threads, tables of {}", quiet.descriptors,
                                    quiet.threads, fmt::join(owed, " ")));
    }
    void checkMemory(size_t killed) const {
        const size_t allowed = quiet.rssKb + (killed * kKeptBytes + kSlackBytes) / 1024;
        const size_t seen = footprint().rssKb;
        if (kMemoryTells && seen > allowed) {
            fail(fmt::format("memory grew from {} to {} kB, to {} it might", quiet.rssKb, seen,
                             allowed));
        }
    }
    Footprint footprint() const {
        const std::string proc = fmt::format("/proc/{}/", mStage->service().pid());
        const auto count = [&](const char* folder) {
            const std::filesystem::directory_iterator first(proc + folder);
            return static_cast<size_t>(std::distance(first, {}));
        };
        Footprint all = {count("fd"), count("task"), 0, 0};
        std::ifstream rollup(proc + "smaps_rollup");
        for (std::string line; std::getline(rollup, line);) {
            if (line.rfind("Rss:", 0) == 0)
                all.rssKb = static_cast<size_t>(numberAfter(line, "Rss:"));
            if (line.rfind("Pss:", 0) == 0)
                all.pssKb = static_cast<size_t>(numberAfter(line, "Pss:"));
        }
        return all;
    }
    // Where everything stands, for people.
    std::string audit() const {
        return fmt::format(
                "tables {}; report list {} of {} to {}; requests of {} processes, perhaps {} more; "
                "module told {} of {}",
                fmt::join(mLibrary.size, " "), mLibrary.places.size(), mLibrary.must.size(),
                mLibrary.may.size(), mLibrary.standing.size(), mLibrary.doubtful.size(),
                mLibrary.ordered, mLibrary.orders);
    }

    support::Process& service() { return mStage->service(); }
    std::string registry() const { return mStage->registry(); }

    std::vector<Survivor> survivors;
    std::set<pid_t> ready, held;
    std::map<pid_t, int64_t> lost, found;    // when, by the clients' own clocks
    std::set<std::string> deathThreads;      // that were told of one
    size_t refusals = 0;                     // for want of descriptors or threads
    size_t checked = 0;                      // batches
    std::vector<int64_t> calls, deliveries;  // how long they took, in nanoseconds
    Footprint quiet = {};

  private:
    using Pids = std::unordered_set<pid_t>;

    // The library's state as far as its log and the module's trace tell it.
    struct Library {
        std::map<std::string, pid_t> dying;      // by thread: whose death it handles
        std::map<std::string, size_t> enabling;  // by thread: rounds that were over when it began
        std::map<pid_t, int64_t> cleaned;
        size_t size[kTables] = {};
        size_t rounds = 0;
        bool delivering = false, ended = false;
        size_t orders = 0, ordered = 0;  // enables and disables: clients' and the module's
        // Whose requests stand; whose may, since death came while they asked.
        Pids standing, doubtful, atStart;
        // Who is in the report list for certain, and who may be.
        Pids must, may;
        // The same bounds for how many the last batch was routed to.
        size_t least = 0, most = 0, enablingAtEnd = 0;
        // The pairs of each place of the list, as a version 1.0 survivor saw them.
        std::vector<std::vector<uint32_t>> places;
    };

    // Takes what has been said; throws on what must not be.
    void pump() {
        for (const auto& line : service().err().take()) onLog(line);
        for (const auto& line : mStage->trace().take()) onTrace(line.text);
        for (const auto& line : mNotes.take()) onNote(line.text);
    }

    void onLog(const support::LineSource::Line& line) {
        const std::string& text = line.text;
        Library& l = mLibrary;
        mLog << text << "\n";
        std::string word[6];  // tag, priority, day, time, process, thread
        std::istringstream stream(text);
        for (std::string& next : word) stream >> next;
        const std::string& thread = word[5];
        const pid_t pid = static_cast<pid_t>(numberAfter(text, "pid["));
        // Only a whole log proves anything.
        if (has(text, "Nobody read the log") || word[1] == "F" || has(text, "Sanitizer"))
            fail(text);
        if (has(text, "serviceDied, cookie is ")) {
            l.dying[thread] = static_cast<pid_t>(numberAfter(text, "cookie is "));
            deathThreads.insert(thread);
        } else if (has(text, "Match, remainder cb[")) {
            l.size[tableOf(text)] = static_cast<size_t>(numberAfter(text, "cb["));
            if (tableOf(text) == kActivity1_1) l.standing.erase(l.dying[thread]);
            if (tableOf(text) <= kActivity1_0) l.cleaned[l.dying[thread]] = line.ns;
        } else if (has(text, "death notification successful")) {
            l.size[tableOf(text)] = static_cast<size_t>(numberAfter(text, "cb["));
        } else if (has(text, "enableActivityEvent activity[")) {
            l.enabling[thread] = l.rounds - l.delivering;
        } else if (has(text, "enableActivityEvent end, ")) {
            // A batch that began meanwhile may have met the request.
            if (l.enabling[thread] < l.rounds) l.may.insert(pid);
            l.enabling.erase(thread);
            ++l.orders;
            (l.cleaned.count(pid) && !l.standing.count(pid) ? l.doubtful : l.standing).insert(pid);
        } else if (has(text, "disableActivityEvent acivity[")) {
            ++l.orders;
        } else if (has(text, "No descriptor left") || has(text, "Cannot make a thread")) {
            ++refusals;
        } else if (has(text, "ActChangedCb start")) {
            ++l.rounds;
            l.delivering = true;
            l.atStart = l.standing;
        } else if (has(text, "ActChangedCb end")) {
            onEnd();
        }
    }

    void onEnd() {
        Library& l = mLibrary;
        // Traced before it was handed over. A pair that came in too late for it is not in it.
        support::drainOutput();
        for (const auto& line : mStage->trace().take()) onTrace(line.text);
        Pids possible = l.standing;
        possible.insert(l.doubtful.begin(), l.doubtful.end());
        l.least = 0;
        for (pid_t pid : l.atStart) {
            possible.insert(pid);
            const auto isOwn = [&](const Event& event) { return event.pair == pairOf(pid); };
            const auto isIt = [&](const Survivor& survivor) { return survivor.pid == pid; };
            if (l.standing.count(pid) == 0 ||
                (std::none_of(mBatch.begin(), mBatch.end(), isOwn) &&
                 std::none_of(survivors.begin(), survivors.end(), isIt))) {
                continue;
            }
            l.must.insert(pid);
            ++l.least;
        }
        l.may.insert(possible.begin(), possible.end());
        l.most = possible.size();
        l.enablingAtEnd = l.enabling.size();
        l.delivering = false;
        l.ended = true;
    }

    void onTrace(const std::string& line) {
        mTrace << line << "\n";
        mLibrary.ordered += has(line, "able_activity_event");
        const bool activity = has(line, "\"activity_changed\"");
        if (!activity && !has(line, "\"environment_changed\"")) return;
        const auto json = nlohmann::json::parse(line);
        for (const auto& event : json.at("events")) {
            const uint32_t what = event.at("activity"), type = event.at("event_type");
            (activity ? mBatch : mEnvironmentBatch)
                    .push_back({2 * what + type - 1, event.at("timestamp")});
        }
        if (activity) mHandedOverNs = json.at("t");
    }

    void onNote(const std::string& line) {
        std::istringstream stream(line);
        pid_t pid;
        std::string what;
        int64_t ns;
        stream >> pid >> what >> ns;
        if (mAlive.count(pid) == 0) return;  // from before it was killed
        if (what == "ready") ready.insert(pid);
        if (what == "held") held.insert(pid);
        if (what == "lost") lost.emplace(pid, ns);
        if (what == "found") found.emplace(pid, ns);
        if (what == "call" && stream >> ns) calls.push_back(ns);
        if (what == "A") mArrivals.push_back(ns);
        for (Survivor& survivor : survivors) {
            if (survivor.pid != pid || what.size() > 1) continue;
            if ((isupper(what[0]) != 0) != survivor.plan.newer())
                fail("in the wrong version: " + line);
            auto& got = toupper(what[0]) == 'A' ? survivor.activity : survivor.environment;
            got.emplace_back();
            for (Event event; stream >> event.pair >> event.time;) got.back().push_back(event);
        }
    }

    // One call for each place of the report list, in its order: with all the events of that
    // process's pairs, or none.
    void checkOlder(const std::vector<Events>& got) {
        Library& l = mLibrary;
        size_t served = 0;
        for (size_t i = 0; i < got.size(); ++i) {
            std::vector<uint32_t> pairs;
            for (const Event& event : got[i]) {
                pairs.push_back(event.pair);
                if (std::count(mBatch.begin(), mBatch.end(), event) != 1)
                    fail("an event of no batch");
            }
            served += !pairs.empty();
            if (i == l.places.size()) l.places.push_back(pairs);
            if (l.places[i].empty() || (!pairs.empty() && pairs != l.places[i])) {
                fail(fmt::format("the call for place {} of the report list is not its own", i));
            }
        }
        if (got.size() != l.places.size() || got.size() < l.must.size() ||
            got.size() > l.may.size() + l.enablingAtEnd || served < l.least ||
            served > l.most + l.enablingAtEnd) {
            fail(fmt::format("{} calls, {} with events, where it should be {} to {}; {}",
                             got.size(), served, l.least, l.most, audit()));
        }
    }

    const std::string mLogs;
    std::ofstream mLog, mTrace;
    const uid_t mUser;
    std::unique_ptr<support::Stage> mStage;
    android::base::unique_fd mNotesEnd;
    support::LineSource mNotes;
    std::set<pid_t> mAlive;
    bool mKilled = false;  // the service, by this
    Library mLibrary;
    Events mBatch, mEnvironmentBatch;
    int64_t mHandedOverNs = 0;
    std::vector<int64_t> mArrivals;  // of this batch at version 1.1 survivors
};

}  // namespace storm
