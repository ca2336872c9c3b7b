// A service process, its module and its clients, watched closely: the service's log and the
// module's trace say what each client is owed, and survivors tell what they got.
#pragma once

#include <stage/Stage.h>

#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "Client.h"

namespace storm {

enum Table { kActivity1_1, kActivity1_0, kEnvironment1_1, kEnvironment1_0, kTables };

struct Event {
    uint32_t pair;
    int64_t time;
    bool operator==(const Event& o) const { return pair == o.pair && time == o.time; }
};
using Events = std::vector<Event>;

struct Survivor {
    pid_t pid;
    Plan plan;
    std::vector<Events> activity;  // what it got since the last check
    std::vector<Events> environment;
};

struct Footprint {
    size_t descriptors, threads, rssKb, pssKb;
};

// What a storm shows, in nanoseconds; whoever prints it empties it.
struct Latencies {
    std::vector<int64_t> calls, deliveries;
};

class House {
  public:
    using Runner = std::vector<std::string>;

    // logs: folder to which the log and the trace are written. user: whom service and clients run
    // as, 0 for this process's own.
    House(const std::string& logs, Runner runner = {}, uid_t user = 0);
    ~House();
    House(const House&) = delete;
    House& operator=(const House&) = delete;

    // Starts the service and waits until it serves; again after a kill.
    void start();
    void addSurvivors(const std::vector<Plan>& plans);  // and waits until they are ready
    void awaitSurvivors();
    pid_t spawn(const Plan& plan);
    // With SIGKILL. Throws when it has ended by itself.
    void kill(pid_t pid);
    void killService();

    // Takes what has been said; throws on what must not be.
    void pump();
    void await(const std::function<bool()>& done, const std::string& what);

    // One batch of each side. Throws unless every survivor got exactly what it is owed.
    void round();
    void begin();
    bool isOver();
    void check();

    // Waits until all that is left of those who died is what the rules keep.
    void settle();
    void rememberQuiet();                   // what settle() holds descriptors and threads against
    void checkMemory(size_t killed) const;  // since then
    Footprint footprint(bool memory = true) const;
    const Footprint& quiet() const { return mQuiet; }

    support::Stage& stage() { return *mStage; }
    std::string registry() const { return mStage->registry(); }
    bool isReady(pid_t pid) const { return mReady.count(pid) > 0; }
    bool isHeld(pid_t pid) const { return mHeld.count(pid) > 0; }
    bool isDelivering() const { return mDelivering; }
    // When the service had cleaned up behind it, or 0.
    int64_t cleanedUp(pid_t pid) const;
    size_t reportList() const { return mShapes.size(); }
    size_t requests() const { return mStanding.size(); }
    std::string audit() const;
    Latencies& latencies() { return mLatencies; }
    std::vector<Survivor>& survivors() { return mSurvivors; }

    std::map<pid_t, int64_t> lost, found;  // when, by the clients' own clocks
    std::set<std::string> deathThreads;    // that were told of one
    size_t refusals = 0;                   // for want of descriptors or threads
    size_t checked = 0;                    // batches

  private:
    void onLog(const support::LineSource::Line& line);
    void onTrace(const std::string& line);
    void onNote(const std::string& line);
    void checkOlder(const std::vector<Events>& calls);

    std::ofstream mLog, mTrace;
    const std::string mClientLog;
    const uid_t mUser;
    std::unique_ptr<support::Stage> mStage;
    android::base::unique_fd mNotesEnd;
    support::LineSource mNotes;
    std::vector<Survivor> mSurvivors;
    std::set<pid_t> mAlive, mReady, mHeld;
    Footprint mQuiet = {};
    bool mKilled = false;  // the service, by this
    Latencies mLatencies;

    // From the log.
    std::map<std::string, pid_t> mDying;      // by thread: whose death it handles
    std::map<std::string, size_t> mEnabling;  // by thread: rounds that had begun before
    std::map<pid_t, int64_t> mCleaned;
    size_t mSize[kTables] = {}, mOwed[kTables] = {};
    size_t mRounds = 0;  // that the service has begun
    bool mDelivering = false;
    bool mEnded = false;
    size_t mOrders = 0, mOrdered = 0;  // enables and disables: clients' and the module's

    // Whose requests stand, and whose may: death came while they asked.
    using Pids = std::unordered_set<pid_t>;
    Pids mStanding, mDoubtful, mAtStart;
    // The report list: who is in it for certain, and who may be.
    Pids mMust, mMay;
    size_t mLeast = 0, mMost = 0, mEnablingAtEnd = 0;  // whom the last batch was routed to
    // The pairs of each position of it, as a version 1.0 survivor saw them.
    std::vector<std::vector<uint32_t>> mShapes;
    size_t mServed = 0;  // positions with events in the last batch
    Events mBatch, mEnvironmentBatch;
    int64_t mHandedOverNs = 0;
};

}  // namespace storm
