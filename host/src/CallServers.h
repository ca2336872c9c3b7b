// SPDX-License-Identifier: Apache-2.0
// Threads that serve the connections on which other processes call: one for each that is in use.
// A connection on which nobody calls any more is let go, with its thread; the caller makes another
// when it needs one. One thread is made at the start and stays: where there can be no others, it
// serves one connection after the other.
#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <memory>

#include <utils/Mutex.h>

#include "Wire.h"

namespace android { namespace hardware { namespace host {

class Session;

// A connection that is served. Its thread is in a call, or waits for the next one: then, and only
// then, the connection may be taken from it.
class ServedConnection {
  public:
    ServedConnection(ConnectionPtr connection, const Session* session);

    const ConnectionPtr& connection() const { return mConnection; }
    const Session* session() const { return mSession; }

    // By its thread: waits from now on.
    [[gnu::hot]] void rest();
    // By its thread, when a call has come: false when the connection is let go.
    [[gnu::hot]] bool wake();
    // By any thread: takes the connection from its waiting thread, which is woken. False when it is
    // in a call, or let go already.
    bool letGo();
    // In the order of resting; UINT64_MAX: in a call.
    uint64_t restingSince() const { return mRestingSince; }

  private:
    enum State { kResting, kInCall, kGone };

    const ConnectionPtr mConnection;
    const Session* const mSession;
    std::atomic<State> mState{kResting};
    std::atomic<uint64_t> mRestingSince{0};
};

class CallServers {
  public:
    // Never destroyed: its threads outlive main.
    static CallServers& self();

    // Makes the thread that stays. False, logged, when there can be none.
    bool start() EXCLUDES(mMutex);

    // Serves this connection until it ends or is let go. Where there is no thread for it, it waits
    // in line for one, for kPeerLimit at most; then it is refused.
    void serve(const std::shared_ptr<Session>& session, const ConnectionPtr& connection)
            EXCLUDES(mMutex);
    // Whether a connection waits for a thread, so that none may rest.
    bool isShort() const { return mLineLength > 0; }
    // How many threads serve this session's connections.
    size_t serving(const Session* session) EXCLUDES(mMutex);

    // Lets go of the connection that has waited longest for a call: its thread and descriptor are
    // free in a moment. Nothing happens when all are in calls.
    void makeRoom() EXCLUDES(mMutex);

    // To be called once a second while it says so: lets go of connections that have waited for a
    // call since it was called last, and refuses what has been in line for too long.
    bool sweep() EXCLUDES(mMutex);

  private:
    using Clock = std::chrono::steady_clock;
    struct Waiting {
        std::shared_ptr<Session> session;
        ConnectionPtr connection;
        Clock::time_point since;
    };

    CallServers() = default;
    // The body of a thread, which ends when nothing waits in line unless it is the one that stays.
    void run(Waiting first, bool stays) EXCLUDES(mMutex);
    // Without a session when there is none.
    Waiting next(bool stays) EXCLUDES(mMutex);

    // A leaf.
    Mutex mMutex;
    std::condition_variable_any mCame;
    bool mStarted GUARDED_BY(mMutex) = false;
    std::list<ServedConnection*> mServed GUARDED_BY(mMutex);
    uint64_t mLastSweep GUARDED_BY(mMutex) = 0;  // as ServedConnection::restingSince()
    std::deque<Waiting> mLine GUARDED_BY(mMutex);
    std::atomic<size_t> mLineLength{0};
};

}}}  // namespace android::hardware::host
