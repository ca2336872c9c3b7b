// SPDX-License-Identifier: Apache-2.0
// This process as others see it: its listening socket, its sessions, and the control thread that
// accepts connections and sees other processes die.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <set>
#include <string>

#include <android-base/unique_fd.h>
#include <utils/Errors.h>
#include <utils/Mutex.h>

#include "Descriptors.h"
#include "Session.h"
#include "Thread.h"
#include "Wire.h"
#include "Worker.h"

namespace android { namespace hardware { namespace host {

class Node {
  public:
    // Made on first use, never destroyed: its threads outlive main.
    static Node& self();

    // Listens, once; the name of the socket in the registry. Empty on failure, which is logged.
    std::string listen() EXCLUDES(mListenMutex, mMutex);

    // What calls to object 0 reach: set before listen().
    void setRegistryObject(const sp<IBinder>& object);
    sp<IBinder> registryObject();

    // The session with the process that listens there, made when there is none. NULL when nobody
    // listens, or it has not answered within kPeerLimit; others can be dialled meanwhile.
    SessionPtr dial(const std::string& socketName) EXCLUDES(mDialMutex, mMutex);

    // Lets every process that was dialled call back, as the pool now allows. When it returns, each
    // of them can as soon as it gets to it.
    void offerServing();

    // With every process that there is one with.
    std::vector<SessionPtr> sessions() EXCLUDES(mMutex);

    // Where destructors of the application run.
    Worker& janitor() { return mJanitor; }

    // Within a second the control thread takes up again what could not be done now: for what a
    // descriptor, a thread or a lock was missing.
    void retrySoon();

    // Changes what the control thread waits for on this control connection.
    void watch(const Connection& control, uint32_t events);

  private:
    Node();

    // What every use of other processes needs: false, logged, when a thread or descriptor is
    // missing.
    bool start() EXCLUDES(mMutex);
    SessionPtr greetAt(const std::string& socketName);

    void run();
    void retry();
    void keepRegistered() EXCLUDES(mMutex);
    // False when nobody is waiting.
    bool accept() EXCLUDES(mMutex);
    // First message of a connection. False when it has not come yet.
    bool greet(const ConnectionPtr& connection);
    // Takes a connection for what it says it is for. False when it is not valid.
    bool admit(const ConnectionPtr& connection, Role role, const Message& hello);
    bool admitSession(const ConnectionPtr& control, const Message& hello);
    void refuseFull(const ConnectionPtr& connection, status_t status);
    bool addSession(const SessionPtr& session, const ConnectionPtr& control) EXCLUDES(mMutex);
    void endSession(const SessionPtr& session) EXCLUDES(mMutex);
    SessionPtr sessionOf(const Token& token, pid_t peer) EXCLUDES(mMutex);
    std::vector<SessionPtr> sessionsOf(pid_t peer) EXCLUDES(mMutex);
    // Beside control connections, of all its sessions.
    size_t connectionsOf(pid_t peer) EXCLUDES(mMutex);
    // Whether there is a descriptor for a connection that is not owed to anybody.
    bool haveRoomForCalls() EXCLUDES(mMutex);

    Worker mJanitor{"hidl-janitor"};
    std::atomic<bool> mRetrying{false};

    // Held while the registry's lock is waited for. Taken before mMutex.
    Mutex mListenMutex;
    std::string mSocketName GUARDED_BY(mListenMutex);

    // Never held while another process is waited for. Taken before mMutex.
    Mutex mDialMutex;
    std::condition_variable_any mDialChanged;
    std::map<std::string, SessionPtr> mDialled GUARDED_BY(mDialMutex);
    std::set<std::string> mDialling GUARDED_BY(mDialMutex);

    // A leaf.
    Mutex mMutex;
    bool mStarted GUARDED_BY(mMutex) = false;
    base::unique_fd mListener GUARDED_BY(mMutex);
    base::unique_fd mRemovals GUARDED_BY(mMutex);  // inotify on the registry
    sp<IBinder> mRegistryObject GUARDED_BY(mMutex);
    std::map<uint64_t, SessionPtr> mSessions GUARDED_BY(mMutex);  // by control connection
    std::map<std::pair<pid_t, Token>, SessionPtr> mSessionsByPeer GUARDED_BY(mMutex);

    // Set before anything else happens, never changed.
    base::unique_fd mEpoll;
    base::unique_fd mTimer;

    // Of the control thread alone. Strangers have not said what they are; the oldest is the first.
    Descriptors mDescriptors;
    std::map<uint64_t, ConnectionPtr> mStrangers;
    LogLimit mFullLog;
};

}}}  // namespace android::hardware::host
