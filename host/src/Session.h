// Everything between this process and one other: the connections, which objects each side has from
// the other, and what happens when the other side is gone.
//
// The process that looked the other one up dialled: it opens the control connection, one call
// connection for each of its threads that is in a call at the same time, and serve connections on
// which its pool waits for the other's calls. A call is written to a connection of which the caller
// is the only user, and the same thread reads the reply from it; calls that come back meanwhile are
// served right there.
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
#include "Wire.h"
#include "Worker.h"

namespace android { namespace hardware { namespace host {

using Token = std::array<uint64_t, 2>;

class Session : public std::enable_shared_from_this<Session> {
  public:
    // dial: makes a further connection to the other process; empty on the side that was dialled.
    using Dialer = std::function<ConnectionPtr(Role)>;

    // What the control thread waits for on a connection that nothing is held back on.
    static constexpr uint32_t kQuietEvents = EPOLLIN | EPOLLRDHUP;

    // Object 0 of every process: its registry of services.
    static constexpr uint64_t kRegistryObject = 0;

    Session(Token token, ConnectionPtr control, Dialer dialer);

    pid_t peer() const { return mControl->peer(); }
    const Token& token() const { return mToken; }
    const ConnectionPtr& control() const { return mControl; }
    bool ended() EXCLUDES(mMutex);

    // FAILED_TRANSACTION when the call does not fit or cannot be sent; DEAD_OBJECT when the other
    // process is gone; TIMED_OUT when there is no answer within `limit`, unless that is 0; else
    // what the other side answered.
    status_t call(uint64_t target, uint32_t code, const Parcel& data, Parcel* reply,
                  std::chrono::milliseconds limit = {});
    // As above, but comes back at once; FAILED_TRANSACTION also when the other side does not keep
    // up.
    status_t callOneway(uint64_t target, uint32_t code, const Parcel& data);

    // Serves calls on a connection that the other side made, or refuses it when there can be no
    // thread; false when it has too many.
    bool acceptServing(const ConnectionPtr& connection);
    // Takes a connection on which the other side serves; false when it has too many.
    bool addServing(const ConnectionPtr& connection);
    // Lets the other side call: starts as many threads with a serve connection each as are missing
    // to `count`. Does not wait.
    void offerServing(size_t count);

    // On the control thread: takes what has arrived and sends what found the socket full. False
    // when the session must end.
    bool onControlEvents(uint32_t events);

    // On the control thread, a while after Node::retrySoon(): takes up what there was no thread
    // for. False when the session must end.
    bool retry() EXCLUDES(mMutex);

    // The other process is gone: fails every call, tells every linked recipient, drops every object
    // that it had. Idempotent; the notices go out on threads of the pool.
    void end() EXCLUDES(mMutex);

    // The last reference to a proxy is going.
    void proxyGone(BpHwBinder* proxy) EXCLUDES(mMutex);

  private:
    // An object of this process that the other one has.
    struct Exported {
        sp<IBinder> binder;
        uint64_t sent = 0;  // how often; the other side gives back as many
    };
    class Loan;

    // Both kinds together; a process that opens more is at fault.
    static constexpr size_t kMaxConnections = 256;

    ConnectionPtr borrow() EXCLUDES(mMutex);
    void giveBack(ConnectionPtr connection, bool broken) EXCLUDES(mMutex);
    bool remember(const ConnectionPtr& connection) EXCLUDES(mMutex);
    // Why there was no connection for a call.
    status_t goneStatus() EXCLUDES(mMutex);
    // The body of a thread that serves on a connection which it dials.
    void serveOffered();

    // Serves calls until the connection ends; the body of a pool thread.
    void serve(const ConnectionPtr& connection);
    // Serves one call that was read from this connection; unless it says OK, the connection must
    // end.
    status_t serveCall(const ConnectionPtr& connection, Message* message);
    // The object that the other side has under this number, or NULL.
    sp<IBinder> exported(uint64_t id) EXCLUDES(mMutex);

    // References for the wire; each object of ours counts as sent. FAILED_TRANSACTION when the
    // parcel is too large, INVALID_OPERATION for an object of a third process.
    status_t encode(const Parcel& parcel, std::vector<ObjectRef>* refs) EXCLUDES(mMutex);
    void undoEncode(const std::vector<ObjectRef>& refs) EXCLUDES(mMutex);
    void undoEncodeLocked(const std::vector<ObjectRef>& refs) REQUIRES(mMutex);
    bool takeBackLocked(uint64_t id, uint64_t amount, sp<IBinder>* last) REQUIRES(mMutex);
    // False when it refers to an object that the sender does not have.
    bool decode(Message* message, Parcel* parcel);
    sp<IBinder> proxyFor(uint64_t id) EXCLUDES(mMutex);

    uint64_t awaitAcknowledgement(const Parcel& reply, const std::vector<ObjectRef>& refs)
            EXCLUDES(mMutex);
    void acknowledge(uint64_t ack) EXCLUDES(mMutex);
    // Queues a message for the control connection and sends what has room.
    void post(Message message) REQUIRES(mMutex);
    void sendOutbox() REQUIRES(mMutex);
    void updateEvents() REQUIRES(mMutex);
    bool onControlMessage(Message* message);
    bool onOneway(Message* message);

    const Token mToken;
    const ConnectionPtr mControl;
    const Dialer mDialer;
    Worker mOneways{"hidl-oneway"};

    // Of the control thread alone: a oneway call for which there was no thread. What comes behind
    // it is left in the socket.
    std::unique_ptr<Message> mHeldOneway;

    // A leaf: nothing is called out while it is held, and no last reference dropped.
    Mutex mMutex;
    std::condition_variable_any mChanged;
    bool mEnded GUARDED_BY(mMutex) = false;
    // Connections for outgoing calls that nobody uses now.
    std::vector<ConnectionPtr> mIdle GUARDED_BY(mMutex);
    std::vector<std::weak_ptr<Connection>> mAll GUARDED_BY(mMutex);
    size_t mServing GUARDED_BY(mMutex) = 0;  // serve connections that this side has dialled
    uint64_t mNextId GUARDED_BY(mMutex) = kRegistryObject + 1;
    std::map<uint64_t, Exported> mExported GUARDED_BY(mMutex);
    std::map<IBinder*, uint64_t> mExportedIds GUARDED_BY(mMutex);
    std::map<uint64_t, wp<BpHwBinder>> mProxies GUARDED_BY(mMutex);
    // What the control socket had no room for, in order.
    std::deque<Message> mOutbox GUARDED_BY(mMutex);
    size_t mOutboxSize GUARDED_BY(mMutex) = 0;  // payload bytes
    // What replies referred to that the other side may not have taken yet.
    std::map<uint64_t, std::vector<sp<IBinder>>> mUnacknowledged GUARDED_BY(mMutex);
    uint64_t mNextAck GUARDED_BY(mMutex) = 1;
    size_t mQueuedOneways GUARDED_BY(mMutex) = 0;  // bytes
    bool mHolding GUARDED_BY(mMutex) = false;      // mHeldOneway is set
    uint32_t mEvents GUARDED_BY(mMutex) = kQuietEvents;
};

using SessionPtr = std::shared_ptr<Session>;

}}}  // namespace android::hardware::host
