#include "House.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

// What stays of a client that died, by the library's rules:
//   version 1.1   nothing of its requests. If it was still asking when its death was dealt with,
//   that
//                 one request may stay ("doubtful").
//   version 1.0   its requests: batches are routed to it for ever, and go to version 1.0 clients
//   both          its place in the report list, once an event was routed to it: each version 1.0
//   client
//                 gets a call for it with each batch, empty ones too; its last events and barriers;
//                 for version 1.1 its death recipient. The module is told nothing.
// In memory that is a few hundred bytes a client; kKeptBytes allows for the heap's own need as
// well.

namespace storm {
namespace {

using android::base::unique_fd;

constexpr size_t kKeptBytes = 2048;
constexpr size_t kSlackBytes = 3 << 20;  // of the heap, with as many threads as there were

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryTells = false;  // a sanitizer keeps what was freed
#else
constexpr bool kMemoryTells = true;
#endif

// All records of a round are due at the same moment, so each side's make one batch; a round is let
// go by the control FIFO. A second of latency takes a millisecond.
std::string scenario() {
    std::string text =
            "activities a0 a1 a2 a3 a4 a5 a6 a7 a8\nenvironments e0\nspeed 1000\nloop 1\n";
    text += "wait go\n";
    for (uint32_t p = 0; p < kPlayed; ++p)
        text += fmt::format("0 activity {} {}\n", p / 2, 1 + p % 2);
    return text + "0 environment e0 1\n";
}

bool has(const std::string& line, const char* text) {
    return line.find(text) != std::string::npos;
}

long numberAfter(const std::string& line, const char* text) {
    const size_t at = line.find(text);
    if (at == std::string::npos) throw std::runtime_error("a log line without number: " + line);
    return atol(line.c_str() + at + strlen(text));
}

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

}  // namespace

House::House(const std::string& logs, Runner runner, uid_t user)
    : mLog(logs + "/service.log"),
      mTrace(logs + "/trace.json"),
      mClientLog(logs + "/clients.log"),
      mUser(user) {
    support::StageSetup setup;
    static const support::Stage files;
    setup.scenario = files.write("storm.scn", scenario());
    setup.runner = std::move(runner);
    mStage = std::make_unique<support::Stage>(setup);
    if (user != 0) {
        const std::filesystem::path folders[] = {files.folder(), mStage->folder(), logs};
        for (const auto& folder : folders) {
            for (const auto& entry : std::filesystem::directory_iterator(folder)) {
                if (chown(entry.path().c_str(), user, user) != 0) fail("chown");
            }
            if (chown(folder.c_str(), user, user) != 0) fail("chown");
        }
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
    mNotes.adopt(unique_fd(ends[0]));
    mNotes.deepen();
    mNotesEnd.reset(ends[1]);
}

House::~House() {
    for (pid_t pid : mAlive) ::kill(pid, SIGKILL);
    for (pid_t pid : mAlive) waitpid(pid, nullptr, 0);
}

void House::start() {
    lost.clear();
    found.clear();
    mReady.clear();
    mKilled = false;
    mStage->startService();
    mStage->service().err().deepen();
    mStage->serving();
    // Everything that the one before had kept is gone.
    for (Pids* pids : {&mStanding, &mDoubtful, &mAtStart, &mMust, &mMay}) pids->clear();
    std::fill(mSize, mSize + kTables, 0);
    mShapes.clear();
    mOrders = mOrdered = mRounds = 0;
    mDelivering = false;
    mDying.clear();
    mEnabling.clear();
}

pid_t House::spawn(const Plan& plan) {
    const pid_t parent = getpid(), pid = fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
        const int log = open(mClientLog.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(log, STDERR_FILENO);
        dup2(mNotesEnd.get(), kNotes);
        close_range(kNotes + 1, ~0u, 0);
        if (mUser != 0 && (setgid(mUser) != 0 || setuid(mUser) != 0)) _exit(3);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_DUMPABLE, 1);  // so that its own /proc stays its own, whoever it has become
        if (getppid() != parent) _exit(3);
        setenv("HIDL_HOST_DIR", mStage->registry().c_str(), 1);
        live(plan);
    }
    mAlive.insert(pid);
    mCleaned.erase(pid);
    return pid;
}

void House::addSurvivors(const std::vector<Plan>& plans) {
    for (const Plan& plan : plans) {
        mSurvivors.push_back({spawn(plan), plan, {}, {}});
        mOwed[kActivity1_1] += plan.newer();
        mOwed[kActivity1_0] += plan.older();
        mOwed[kEnvironment1_1] += plan.newer() && plan.environment;
        mOwed[kEnvironment1_0] += plan.older() && plan.environment;
    }
    awaitSurvivors();
}

void House::awaitSurvivors() {
    await(
            [this] {
                return std::all_of(mSurvivors.begin(), mSurvivors.end(),
                                   [this](const Survivor& s) { return isReady(s.pid); });
            },
            "all survivors");
}

void House::kill(pid_t pid) {
    ::kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) != pid && errno == EINTR) continue;
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
        fail(fmt::format("client {} ended by itself, with status {:#x}", pid, status));
    }
    mAlive.erase(pid);
    mReady.erase(pid);
    mHeld.erase(pid);
}

void House::killService() {
    mKilled = true;
    stage().service().signal(SIGKILL);
    stage().service().waitExit();
    support::drainOutput();
    pump();
}

void House::await(const std::function<bool()>& done, const std::string& what) {
    const auto pumped = [&] {
        pump();
        if (!mKilled && stage().service().hasEnded()) fail("the service has ended");
        return done();
    };
    if (!support::waitUntil(pumped)) fail("waited in vain for " + what + "; " + audit());
}

void House::pump() {
    for (const auto& line : stage().service().err().take()) onLog(line);
    for (const auto& line : stage().trace().take()) onTrace(line.text);
    for (const auto& line : mNotes.take()) onNote(line.text);
}

void House::onLog(const support::LineSource::Line& line) {
    const std::string& text = line.text;
    mLog << text << "\n";
    std::string words[6];  // tag, priority, day, time, process, thread
    std::istringstream stream(text);
    for (std::string& word : words) stream >> word;
    const std::string& thread = words[5];
    // Only whole logs prove anything; nothing here may be fatal.
    if (has(text, "Nobody read the log") || words[1] == "F" || has(text, "Sanitizer")) fail(text);

    if (has(text, "serviceDied, cookie is ")) {
        mDying[thread] = static_cast<pid_t>(numberAfter(text, "cookie is "));
        deathThreads.insert(thread);
    } else if (has(text, "Match, remainder cb[")) {
        const Table table = has(text, "V1_1 ENV")   ? kEnvironment1_1
                            : has(text, "V1_0 ENV") ? kEnvironment1_0
                            : has(text, "V1_1")     ? kActivity1_1
                                                    : kActivity1_0;
        mSize[table] = static_cast<size_t>(numberAfter(text, "remainder cb["));
        if (table == kActivity1_1) mStanding.erase(mDying[thread]);
        if (table <= kActivity1_0) mCleaned[mDying[thread]] = line.ns;
    } else if (has(text, "death notification successful")) {
        const Table table = has(text, "EnvironmentInterfaceV1_1")   ? kEnvironment1_1
                            : has(text, "EnvironmentInterfaceV1_0") ? kEnvironment1_0
                            : has(text, "V1_1")                     ? kActivity1_1
                                                                    : kActivity1_0;
        mSize[table] = static_cast<size_t>(numberAfter(text, "total cb["));
    } else if (has(text, "enableActivityEvent activity[")) {
        mEnabling[thread] = mRounds - mDelivering;
    } else if (has(text, "enableActivityEvent end, pid[")) {
        const pid_t pid = static_cast<pid_t>(numberAfter(text, "pid["));
        // A batch began meanwhile: it may have met the request.
        if (mEnabling[thread] < mRounds) mMay.insert(pid);
        mEnabling.erase(thread);
        ++mOrders;
        (mCleaned.count(pid) > 0 && mStanding.count(pid) == 0 ? mDoubtful : mStanding).insert(pid);
    } else if (has(text, "disableActivityEvent acivity[")) {
        ++mOrders;
    } else if (has(text, "No descriptor left") || has(text, "Cannot make a thread")) {
        ++refusals;
    } else if (has(text, "ActChangedCb start")) {
        ++mRounds;
        mDelivering = true;
        mAtStart = mStanding;
    } else if (has(text, "ActChangedCb end")) {
        // Written before the batch was handed over. A pair that came in too late for it is not in
        // it.
        support::drainOutput();
        for (const auto& traced : stage().trace().take()) onTrace(traced.text);
        const auto isPlayed = [&](pid_t pid) {
            return std::any_of(mSurvivors.begin(), mSurvivors.end(),
                               [&](const Survivor& survivor) { return survivor.pid == pid; }) ||
                   std::any_of(mBatch.begin(), mBatch.end(),
                               [&](const Event& event) { return event.pair == pairOf(pid); });
        };
        Pids possible = mStanding;
        possible.insert(mDoubtful.begin(), mDoubtful.end());
        mLeast = 0;
        for (pid_t pid : mAtStart) {
            possible.insert(pid);
            if (mStanding.count(pid) == 0 || !isPlayed(pid)) continue;
            mMust.insert(pid);
            ++mLeast;
        }
        mMay.insert(possible.begin(), possible.end());
        mMost = possible.size();
        mEnablingAtEnd = mEnabling.size();
        mDelivering = false;
        mEnded = true;
    }
}

void House::onTrace(const std::string& line) {
    mTrace << line << "\n";
    mOrdered += has(line, "able_activity_event");
    const bool activity = has(line, "\"activity_changed\"");
    if (!activity && !has(line, "\"environment_changed\"")) return;
    const auto json = nlohmann::json::parse(line);
    for (const auto& event : json.at("events")) {
        const uint32_t pair = 2 * event.at("activity").get<uint32_t>() +
                              event.at("event_type").get<uint32_t>() - 1;
        (activity ? mBatch : mEnvironmentBatch).push_back({pair, event.at("timestamp")});
    }
    if (activity) mHandedOverNs = json.at("t");
}

void House::onNote(const std::string& line) {
    std::istringstream stream(line);
    pid_t pid;
    std::string what;
    int64_t ns;
    stream >> pid >> what >> ns;
    if (mAlive.count(pid) == 0) return;  // from before it was killed
    if (what == "ready") mReady.insert(pid);
    if (what == "held") mHeld.insert(pid);
    if (what == "lost") lost.emplace(pid, ns);
    if (what == "found") found.emplace(pid, ns);
    if (what == "call" && stream >> ns) mLatencies.calls.push_back(ns);
    if (what.size() > 1) return;
    const auto survivor = std::find_if(mSurvivors.begin(), mSurvivors.end(),
                                       [&](const Survivor& s) { return s.pid == pid; });
    if (what == "A") mLatencies.deliveries.push_back(ns - mHandedOverNs);
    const bool activity = what == "A" || what == "a";
    auto& calls = activity ? survivor->activity : survivor->environment;
    if ((what == "A" || what == "E") != survivor->plan.newer())
        fail("in the wrong version: " + line);
    calls.emplace_back();
    for (Event event; stream >> event.pair >> event.time;) calls.back().push_back(event);
}

void House::round() {
    begin();
    await([&] { return isOver(); }, "a batch");
    check();
}

void House::begin() {
    mBatch.clear();
    mEnvironmentBatch.clear();
    mEnded = false;
    stage().release("go");
}

bool House::isOver() {
    return mEnded && std::all_of(mSurvivors.begin(), mSurvivors.end(), [](const Survivor& s) {
               return !s.plan.environment || !s.environment.empty();
           });
}

void House::check() {
    support::drainOutput();
    pump();
    const Survivor* older = nullptr;
    for (const Survivor& survivor : mSurvivors) {
        if (survivor.plan.environment &&
            survivor.environment != std::vector<Events>(1, mEnvironmentBatch)) {
            fail(fmt::format("survivor {} got another environment batch", survivor.pid));
        }
        Events own;
        for (const Event& event : mBatch) {
            const auto& pairs = survivor.plan.pairs;
            if (std::count(pairs.begin(), pairs.end(), event.pair)) own.push_back(event);
        }
        if (own.size() != survivor.plan.pairs.size()) fail("a batch lacks a survivor's pair");
        if (survivor.plan.newer() && survivor.activity != std::vector<Events>(1, own)) {
            fail(fmt::format("survivor {} got {} calls, not one with its events", survivor.pid,
                             survivor.activity.size()));
        }
        if (!survivor.plan.older()) continue;
        if (older == nullptr) checkOlder((older = &survivor)->activity);
        if (survivor.activity != older->activity) fail("version 1.0 survivors got different calls");
    }
    for (Survivor& survivor : mSurvivors) {
        survivor.activity.clear();
        survivor.environment.clear();
    }
    ++checked;
}

// One call for each place of the report list, in its order: with all the events of that process's
// pairs, or none.
void House::checkOlder(const std::vector<Events>& calls) {
    mServed = 0;
    for (size_t i = 0; i < calls.size(); ++i) {
        std::vector<uint32_t> pairs;
        for (const Event& event : calls[i]) {
            pairs.push_back(event.pair);
            if (std::count(mBatch.begin(), mBatch.end(), event) != 1) fail("an event of no batch");
        }
        mServed += !pairs.empty();
        if (i == mShapes.size()) mShapes.push_back(pairs);
        if (mShapes[i].empty() || (!pairs.empty() && pairs != mShapes[i])) {
            fail(fmt::format("the call for place {} of the report list is not its own", i));
        }
    }
    if (calls.size() != mShapes.size() || calls.size() < mMust.size() ||
        calls.size() > mMay.size() + mEnablingAtEnd) {
        fail(fmt::format("{} calls for a report list of {}; {}", calls.size(), mShapes.size(),
                         audit()));
    }
    if (mServed < mLeast || mServed > mMost + mEnablingAtEnd) {
        fail(fmt::format("{} places have events, not {} to {}; {}", mServed, mLeast, mMost,
                         audit()));
    }
}

void House::rememberQuiet() {
    // What served a call goes a second or two after it; nothing tells when it has.
    Footprint least = footprint(false);
    support::waitUntil(
            [&] {
                pump();
                const Footprint seen = footprint(false);
                least.descriptors = std::min(least.descriptors, seen.descriptors);
                least.threads = std::min(least.threads, seen.threads);
                return false;
            },
            std::chrono::milliseconds(2500));
    mQuiet = footprint();
    mQuiet.descriptors = least.descriptors;
    mQuiet.threads = least.threads;
}

void House::settle() {
    const auto asBefore = [&] {
        const Footprint seen = footprint(false);
        return std::equal(mSize, mSize + kTables, mOwed) && mOrders == mOrdered &&
               seen.descriptors <= mQuiet.descriptors && seen.threads <= mQuiet.threads;
    };
    await(asBefore,
          fmt::format("{} descriptors and {} threads", mQuiet.descriptors, mQuiet.threads));
}

void House::checkMemory(size_t killed) const {
    const size_t allowed = mQuiet.rssKb + (killed * kKeptBytes + kSlackBytes) / 1024;
    const size_t seen = footprint().rssKb;
    if (kMemoryTells && seen > allowed) {
        fail(fmt::format("memory grew from {} to {} kB, {} would do", mQuiet.rssKb, seen, allowed));
    }
}

std::string House::audit() const {
    return fmt::format(
            "tables {} {} {} {} of {} {} {} {}, report list {} of {} to {}, requests of {} and "
            "perhaps {}, served {}, module told {} of {}",
            mSize[0], mSize[1], mSize[2], mSize[3], mOwed[0], mOwed[1], mOwed[2], mOwed[3],
            mShapes.size(), mMust.size(), mMay.size(), mStanding.size(), mDoubtful.size(), mServed,
            mOrdered, mOrders);
}

int64_t House::cleanedUp(pid_t pid) const {
    const auto cleaned = mCleaned.find(pid);
    return cleaned == mCleaned.end() ? 0 : cleaned->second;
}

Footprint House::footprint(bool memory) const {
    const std::string proc = fmt::format("/proc/{}/", mStage->service().pid());
    const auto count = [&](const char* folder) {
        const std::filesystem::directory_iterator entries(proc + folder);
        return static_cast<size_t>(
                std::distance(std::filesystem::begin(entries), std::filesystem::end(entries)));
    };
    Footprint all = {count("fd"), count("task"), 0, 0};
    std::ifstream rollup(proc + "smaps_rollup");
    for (std::string line; memory && std::getline(rollup, line);) {
        if (line.rfind("Rss:", 0) == 0) all.rssKb = size_t(numberAfter(line, "Rss:"));
        if (line.rfind("Pss:", 0) == 0) all.pssKb = size_t(numberAfter(line, "Pss:"));
    }
    return all;
}

}  // namespace storm
