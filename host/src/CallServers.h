// Threads that serve the connections on which other processes call: one for each that is in use.
// A connection on which nobody calls any more is let go, with its thread; the caller makes another
// when it needs one.
#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>

#include <utils/Mutex.h>

#include "Wire.h"

namespace android { namespace hardware { namespace host {

class Session;

// How long a thread waits for the next call on its connection.
constexpr std::chrono::milliseconds kLinger{1000};

// A connection that is served. Its thread is in a call, or waits for the next one: then, and only
// then, the connection may be taken from it.
class ServedConnection {
  public:
    explicit ServedConnection(ConnectionPtr connection) : mConnection(std::move(connection)) {}

    const ConnectionPtr& connection() const { return mConnection; }

    // By its thread: waits from now on.
    void rest();
    // By its thread, when a call has come: false when the connection is let go.
    bool wake();
    // By any thread: true for the one that takes the connection from its waiting thread.
    bool letGo();
    // In the order of resting; UINT64_MAX: in a call.
    uint64_t restingSince() const { return mRestingSince; }

  private:
    enum State { kResting, kInCall, kGone };

    const ConnectionPtr mConnection;
    std::atomic<State> mState{kResting};
    std::atomic<uint64_t> mRestingSince{0};
};

class CallServers {
  public:
    // Never destroyed: its threads outlive main.
    static CallServers& self();

    // Serves this connection until it ends or is let go. False when there can be no thread.
    bool serve(const std::shared_ptr<Session>& session, const ConnectionPtr& connection)
            EXCLUDES(mMutex);

    // Lets go of the connection that has waited longest for a call: its thread and descriptor are
    // free in a moment. Nothing happens when all are in calls.
    void makeRoom() EXCLUDES(mMutex);

  private:
    CallServers() = default;

    // A leaf.
    Mutex mMutex;
    std::list<ServedConnection*> mServed GUARDED_BY(mMutex);
};

}}}  // namespace android::hardware::host
