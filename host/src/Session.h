// SPDX-License-Identifier: Apache-2.0
// Everything between this process and one other: the connections, which objects each side has from
// the other, and what happens when the other side is gone.
//
// The process that looked the other one up dialled: it opens the control connection, a call
// connection for each of its threads that is in a call at the same time, and serve connections on
// which its pool waits for the other's calls: one, and one more whenever a call of the other side
// finds none free. A call is written to a connection of which the caller is the only user, and the
// same thread reads the reply from it; calls that come back meanwhile are served right there.
//
// [[gnu::hot]] is what every call goes through. It lies together in the library, and [[gnu::cold]]
// away from it: a process that is called now and then starts each time with few pages of code to
// find, which between many clients is a good part of what a call takes.
#pragma once

#include <stdint.h>
#include <sys/epoll.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include <hwbinder/Parcel.h>
#include <utils/Mutex.h>

#include "BpHwBinder.h"
#include "CallServers.h"
#include "Usage.h"
#include "Wire.h"

namespace android { namespace hardware { namespace host {

using Token = std::array<uint64_t, 2>;

class Session : public std::enable_shared_from_this<Session> {
  public:
    // Makes a further connection to the other process, or NULL when it cannot within `limit`. Empty
    // on the side that was dialled.
    using Dialer = std::function<ConnectionPtr(Role, std::chrono::milliseconds limit)>;

    // What the control thread waits for on a connection that nothing is held back on.
    static constexpr uint32_t kQuietEvents = EPOLLIN | EPOLLRDHUP;

    // Object 0 of every process: its registry of services.
    static constexpr uint64_t kRegistryObject = 0;

    Session(Token token, ConnectionPtr control, Dialer dialer);

    pid_t peer() const { return mPeer; }
    const Token& token() const { return mToken; }
    // Of the control connection.
    uint64_t serial() const { return mSerial; }
    bool dialled() const { return mDialer != nullptr; }
    bool ended() EXCLUDES(mMutex);

    // FAILED_TRANSACTION when the call does not fit, or no connection for it can be had within
    // kPeerLimit; DEAD_OBJECT when the other process is gone; TIMED_OUT when there is no answer
    // within `limit`, unless that is 0; else what the other side answered.
    [[gnu::hot]] status_t call(uint64_t target, uint32_t code, const Parcel& data, Parcel* reply,
                               std::chrono::milliseconds limit = {});
    // As above, but comes back at once; FAILED_TRANSACTION also when the other side does not keep
    // up.
    status_t callOneway(uint64_t target, uint32_t code, const Parcel& data);

    // Serves calls on a connection that the other side made. False when the session has ended.
    bool acceptServing(const ConnectionPtr& connection) EXCLUDES(mMutex);
    // Takes a connection on which the other side serves. False when the session has ended.
    bool addServing(const ConnectionPtr& connection) EXCLUDES(mMutex);
    // Whether there is a connection on which the other side serves.
    bool canCall() EXCLUDES(mMutex);
    // How many connections there are beside the control connection.
    size_t connections() EXCLUDES(mMutex);
    Usage::Session usage() EXCLUDES(mMutex);
    // Whether the other side has this object.
    bool hasSent(IBinder* binder) EXCLUDES(mMutex);
    // Lets the other side call as the pool allows: starts the threads, with a serve connection
    // each, that are missing. Does not wait.
    void offerServing() EXCLUDES(mMutex);
    // Waits until the first of them has its connection.
    void awaitServing(std::chrono::steady_clock::time_point deadline) EXCLUDES(mMutex);

    // The body of a thread that serves what the other side calls.
    [[gnu::hot]] void serveCalls(ServedConnection* served);

    // On the control thread: takes what has arrived and sends what found the socket full. False
    // when the session must end.
    bool onControlEvents(uint32_t events);

    // The other process is gone: fails every call, tells every linked recipient, drops every object
    // that it had, and every descriptor that no thread is using. Idempotent; the notices go out on
    // threads of the pool.
    void end() EXCLUDES(mMutex);

    // The last reference to a proxy is going.
    void proxyGone(BpHwBinder* proxy) EXCLUDES(mMutex);

  private:
    // An object of this process that the other one has.
    struct Exported {
        sp<IBinder> binder;
        uint64_t sent = 0;  // how often; the other side gives back as many
    };
    // A oneway call that waits for its turn.
    struct Oneway {
        sp<IBinder> target;
        std::shared_ptr<Parcel> data;
        uint32_t code;
        size_t room;
    };
    class Loan;
    class Patience;

    // Calls that this side makes at a time, nested ones aside. Further ones wait in line.
    static constexpr size_t kMaxCalls = 128;
    // Objects of the other side that this one holds.
    static constexpr size_t kMaxProxies = 64 * 1024;
    // Replies with objects of the other side that it has not acknowledged.
    static constexpr size_t kMaxUnacknowledged = 1024;

    // NULL when there is none within the caller's patience, or the session has ended.
    [[gnu::hot]] ConnectionPtr borrow(Patience* patience) EXCLUDES(mMutex);
    // One that nobody uses, or NULL: then `dial` says whether to make one.
    [[gnu::hot]] ConnectionPtr takeIdle(Patience* patience, bool* dial) EXCLUDES(mMutex);
    [[gnu::hot]] void giveBack(ConnectionPtr connection) EXCLUDES(mMutex);
    // It is of no use any more.
    [[gnu::cold]] void drop() EXCLUDES(mMutex);
    // Those that nobody uses have probably been let go too.
    [[gnu::cold]] void dropIdle() EXCLUDES(mMutex);
    // False when the session has ended.
    bool remember(const ConnectionPtr& connection) EXCLUDES(mMutex);
    ConnectionPtr control() EXCLUDES(mMutex);
    // Why there was no connection for a call.
    [[gnu::cold]] status_t goneStatus() EXCLUDES(mMutex);
    // A call could not be sent, for errno: whether to try another connection.
    [[gnu::cold]] bool mayGoElsewhere(Loan* loan, status_t* status) EXCLUDES(mMutex);
    // The answer to a call that was sent. False when it was not taken, and may be sent elsewhere.
    [[gnu::hot]] bool awaitReply(Loan* loan, Parcel* reply, status_t* status);
    // The body of a thread that serves on a connection which it dials.
    [[gnu::hot]] void serveOffered();

    // Serves a call that has come; unless it says OK, the connection must end.
    [[gnu::hot]] status_t serveMessage(const ConnectionPtr& connection, Message* message);
    // Does what a call asks for. False when it is not valid.
    [[gnu::hot]] bool execute(const ConnectionPtr& connection, Message* message, Parcel* reply,
                              status_t* status);
    // False when the reply cannot be sent.
    [[gnu::hot]] bool answer(const ConnectionPtr& connection, const Parcel& reply, status_t status);
    // A reply that takes this room has not been read for kPeerLimit: whether to go on waiting.
    // counted: whether it stands in mUnreadRoom.
    bool waitsForReader(size_t room, bool* counted) EXCLUDES(mMutex);
    // The object that the other side has under this number, or NULL.
    [[gnu::hot]] sp<IBinder> exported(uint64_t id) EXCLUDES(mMutex);

    // References for the wire; each object of ours counts as sent. FAILED_TRANSACTION when the
    // parcel is too large, INVALID_OPERATION for an object of a third process.
    [[gnu::hot]] status_t encode(const Parcel& parcel, std::vector<ObjectRef>* refs)
            EXCLUDES(mMutex);
    status_t encodeObjects(const Parcel& parcel, std::vector<ObjectRef>* refs) EXCLUDES(mMutex);
    void undoEncode(const std::vector<ObjectRef>& refs) EXCLUDES(mMutex);
    void undoEncodeLocked(const std::vector<ObjectRef>& refs) REQUIRES(mMutex);
    bool takeBackLocked(uint64_t id, uint64_t amount, sp<IBinder>* last) REQUIRES(mMutex);
    // BAD_VALUE when it refers to an object that the sender does not have; NO_MEMORY when this side
    // has too many of its objects: what finds no place is given back.
    [[gnu::hot]] status_t decode(Message* message, Parcel* parcel);
    sp<IBinder> proxyFor(uint64_t id) EXCLUDES(mMutex);

    // ack: what the receiver of this reply must acknowledge. FAILED_TRANSACTION when it
    // acknowledges nothing.
    status_t awaitAcknowledgement(const Parcel& reply, const std::vector<ObjectRef>& refs,
                                  uint64_t* ack) EXCLUDES(mMutex);
    void acknowledge(uint64_t ack) EXCLUDES(mMutex);
    // Gives back what the other side has sent.
    void giveUp(uint64_t id, uint64_t amount) REQUIRES(mMutex);
    // Sends what waits for the control connection, as far as there is room.
    void sendWaiting() REQUIRES(mMutex);
    void updateEvents() REQUIRES(mMutex);
    bool takesOneways() EXCLUDES(mMutex);
    bool onControlMessage(Message* message);
    bool onOneway(Message* message);
    void runOneway() EXCLUDES(mMutex);

    const Token mToken;
    const pid_t mPeer;
    const uint64_t mSerial;
    const Dialer mDialer;

    // Nothing of the application is called while it is held, and no last reference dropped; below
    // it are only the pool's lock and CallServers'.
    Mutex mMutex;
    std::condition_variable_any mFreed;          // a connection for calls, or the place for one
    std::condition_variable_any mOffersChanged;  // mServing or mOffered
    bool mEnded GUARDED_BY(mMutex) = false;
    ConnectionPtr mControl GUARDED_BY(mMutex);  // NULL once it has ended
    // Connections for outgoing calls: those that nobody uses now, and how many there are.
    std::vector<ConnectionPtr> mIdle GUARDED_BY(mMutex);
    size_t mCallable GUARDED_BY(mMutex) = 0;
    size_t mLine GUARDED_BY(mMutex) = 0;  // calls that wait for one
    std::vector<std::weak_ptr<Connection>> mAll GUARDED_BY(mMutex);
    // Serve connections that this side has dialled: threads that were started, how many of them
    // have their connection, and how often the other side wanted one more.
    size_t mOffered GUARDED_BY(mMutex) = 0;
    size_t mServing GUARDED_BY(mMutex) = 0;
    size_t mWanted GUARDED_BY(mMutex) = 0;
    uint64_t mNextId GUARDED_BY(mMutex) = kRegistryObject + 1;
    std::map<uint64_t, Exported> mExported GUARDED_BY(mMutex);
    std::map<IBinder*, uint64_t> mExportedIds GUARDED_BY(mMutex);
    std::map<uint64_t, wp<BpHwBinder>> mProxies GUARDED_BY(mMutex);
    // What the control socket had no room for. Oneway calls in their order; the others are counts,
    // so that they do not grow with a process that does not read.
    std::deque<Message> mOutbox GUARDED_BY(mMutex);
    size_t mOutboxRoom GUARDED_BY(mMutex) = 0;
    std::map<uint64_t, uint64_t> mReleases GUARDED_BY(mMutex);  // behind the oneway calls
    std::vector<uint64_t> mAcks GUARDED_BY(mMutex);
    bool mWants GUARDED_BY(mMutex) = false;
    bool mWaiting GUARDED_BY(mMutex) = false;  // there is any of that
    // What replies referred to that the other side may not have taken yet.
    std::map<uint64_t, std::vector<sp<IBinder>>> mUnacknowledged GUARDED_BY(mMutex);
    uint64_t mNextAck GUARDED_BY(mMutex) = 1;
    // Oneway calls that have come, and the room that they take with the one that is running.
    std::deque<Oneway> mOneways GUARDED_BY(mMutex);
    size_t mOnewayRoom GUARDED_BY(mMutex) = 0;
    bool mRunningOneway GUARDED_BY(mMutex) = false;
    size_t mUnreadRoom GUARDED_BY(mMutex) = 0;  // of replies that are not read
    uint32_t mEvents GUARDED_BY(mMutex) = kQuietEvents;
};

using SessionPtr = std::shared_ptr<Session>;

}}}  // namespace android::hardware::host
