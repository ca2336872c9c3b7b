// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include "Session.h"

#include <errno.h>
#include <sys/epoll.h>

#include <algorithm>
#include <optional>

#include <hidl/Status.h>
#include <log/log.h>

#include "Node.h"
#include "Thread.h"
#include "ThreadState.h"

namespace android { namespace hardware { namespace host {

namespace {

// Room of oneway calls that may wait for an object of this process; then they are left in the
// socket, which fills.
constexpr size_t kMaxOnewayRoom = 1024 * 1024;

// Room of oneway calls that may wait for the control socket; then calls fail.
constexpr size_t kMaxOutboxRoom = 512 * 1024;

// A process that leaves replies of more than this room unread for kPeerLimit is at fault. One that
// is merely stopped has hardly more than one that does not fit its socket.
constexpr size_t kMaxUnreadRoom = 4 * 1024 * 1024;

// A reply that waits has filled its socket.
constexpr size_t kSocketRoom = 256 * 1024;

// Messages taken from one control connection before others get their turn.
constexpr int kControlBurst = 64;

// Of ScopedFrames on a thread, of which a call that has come back takes two. The other side says
// how deep they go.
constexpr size_t kMaxFrames = 256;

// Which connection this thread is using for which session: what comes back from there, and what it
// calls there meanwhile, goes over the same one.
class ScopedFrame {
  public:
    ScopedFrame(const Session* session, const ConnectionPtr& connection)
        : mSession(session), mConnection(connection), mBelow(sTop), mDepth(depth() + 1) {
        sTop = this;
    }
    ~ScopedFrame() { sTop = mBelow; }
    ScopedFrame(const ScopedFrame&) = delete;
    ScopedFrame& operator=(const ScopedFrame&) = delete;

    // NULL: none.
    static ConnectionPtr connectionInUse(const Session* session) {
        for (const ScopedFrame* frame = sTop; frame != nullptr; frame = frame->mBelow) {
            if (frame->mSession == session) return frame->mConnection;
        }
        return nullptr;
    }
    // How many there are on this thread.
    static size_t depth() { return sTop == nullptr ? 0 : sTop->mDepth; }

  private:
    static thread_local const ScopedFrame* sTop;

    const Session* const mSession;
    const ConnectionPtr& mConnection;
    const ScopedFrame* const mBelow;
    const size_t mDepth;
};

thread_local const ScopedFrame* ScopedFrame::sTop = nullptr;

}  // namespace

// How long a call waits for a connection. The clock starts when there is none at hand.
class Session::Patience {
  public:
    using Clock = std::chrono::steady_clock;

    // Whether to try to make a connection now; once it has failed, after a pause.
    [[gnu::cold]] bool tries() {
        const auto now = Clock::now();
        if (now < mNextTry || now >= deadline()) return false;
        mNextTry = now + mPause;
        mPause = std::min(2 * mPause, std::chrono::milliseconds(320));
        return true;
    }
    // False when there is none left; else waits for a change, but not for long.
    [[gnu::cold]] bool wait(std::condition_variable_any& freed, Mutex& mutex) {
        const auto now = Clock::now();
        if (now >= deadline()) return false;
        const auto soon = now + std::chrono::milliseconds(320);
        freed.wait_until(mutex, mNextTry > now ? std::min(mNextTry, soon) : soon);
        return true;
    }
    [[gnu::cold]] std::chrono::milliseconds left() {
        const auto left = deadline() - Clock::now();
        return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(left),
                        std::chrono::milliseconds(1));
    }

  private:
    Clock::time_point deadline() {
        if (mDeadline == Clock::time_point()) mDeadline = Clock::now() + kPeerLimit;
        return mDeadline;
    }

    Clock::time_point mDeadline;
    Clock::time_point mNextTry;
    std::chrono::milliseconds mPause{10};
};

// The outgoing connection of one call.
class Session::Loan {
  public:
    // limit: for each answer, 0 for none. Who waits for our answer there is not stopped, so then
    // there is none.
    Loan(Session* session, std::chrono::milliseconds limit, Patience* patience)
        : mSession(session), mConnection(ScopedFrame::connectionInUse(session)) {
        if (mConnection != nullptr) return;
        mConnection = session->borrow(patience);
        mBorrowed = mConnection != nullptr;
        mLimited = mBorrowed && limit.count() > 0;
        if (mLimited) mConnection->limitReceive(limit);
    }
    ~Loan() {
        if (mLimited && !mBroken) mConnection->limitReceive({});
        if (mBorrowed && mBroken) mSession->drop();
        if (mBorrowed && !mBroken) mSession->giveBack(std::move(mConnection));
    }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;

    Connection* get() const { return mConnection.get(); }
    const ConnectionPtr& connection() const { return mConnection; }
    // False: a call goes back on the connection that has brought one.
    bool borrowed() const { return mBorrowed; }
    Received receive(Message* message) {
        return mLimited ? mConnection->receiveInTime(message) : mConnection->receive(message);
    }
    [[gnu::cold]] status_t broken(status_t status) {
        mBroken = true;
        mConnection->shutdown();
        return status;
    }

  private:
    Session* const mSession;
    ConnectionPtr mConnection;
    bool mBorrowed = false;
    bool mLimited = false;
    bool mBroken = false;
};

Session::Session(Token token, ConnectionPtr control, Dialer dialer)
    : mToken(token),
      mPeer(control->peer()),
      mSerial(control->serial()),
      mDialer(std::move(dialer)),
      mControl(std::move(control)) {}

bool Session::ended() {
    Mutex::Autolock lock(mMutex);
    return mEnded;
}

ConnectionPtr Session::control() {
    Mutex::Autolock lock(mMutex);
    return mControl;
}

ConnectionPtr Session::borrow(Patience* patience) {
    for (;;) {
        bool dial = false;
        ConnectionPtr connection = takeIdle(patience, &dial);
        if (!dial) return connection;
        connection = mDialer(Role::kCall, patience->left());
        if (connection != nullptr && remember(connection)) return connection;
        drop();
    }
}

ConnectionPtr Session::takeIdle(Patience* patience, bool* dial) {
    Mutex::Autolock lock(mMutex);
    for (bool waited = false;; waited = true) {
        if (mEnded) return nullptr;
        // Who comes now does not overtake those in line.
        if (mIdle.size() > (waited ? 0 : mLine)) {
            ConnectionPtr connection = std::move(mIdle.back());
            mIdle.pop_back();
            return connection;
        }
        if (mDialer != nullptr && mCallable < kMaxCalls && patience->tries()) {
            ++mCallable;
            *dial = true;
            return nullptr;
        }
        ++mLine;
        bool goOn = true;
        if (mDialer == nullptr && mCallable > 0) {
            // As on a device: while the other process's threads are busy, the caller waits. It asks
            // again now and then, since what it asked for may have failed.
            mWants = true;
            sendWaiting();
            mFreed.wait_for(mMutex, std::chrono::seconds(1));
        } else {
            goOn = patience->wait(mFreed, mMutex);
        }
        --mLine;
        if (!goOn) return nullptr;
    }
}

void Session::giveBack(ConnectionPtr connection) {
    Mutex::Autolock lock(mMutex);
    if (mEnded) return;
    mIdle.push_back(std::move(connection));
    if (mLine > 0) mFreed.notify_one();
}

void Session::drop() {
    Mutex::Autolock lock(mMutex);
    --mCallable;
    mFreed.notify_all();
}

void Session::dropIdle() {
    std::vector<ConnectionPtr> idle;  // closed when the lock is released
    Mutex::Autolock lock(mMutex);
    if (mDialer == nullptr) return;
    idle.swap(mIdle);
    mCallable -= idle.size();
}

bool Session::remember(const ConnectionPtr& connection) {
    Mutex::Autolock lock(mMutex);
    if (mEnded) return false;
    mAll.erase(std::remove_if(mAll.begin(), mAll.end(),
                              [](const std::weak_ptr<Connection>& weak) { return weak.expired(); }),
               mAll.end());
    mAll.push_back(connection);
    return true;
}

size_t Session::connections() {
    Mutex::Autolock lock(mMutex);
    return static_cast<size_t>(std::count_if(mAll.begin(), mAll.end(),
                                             [](const auto& weak) { return !weak.expired(); }));
}

Usage::Session Session::usage() {
    const size_t descriptors = 1 + connections();
    const size_t serving = CallServers::self().serving(this);
    Mutex::Autolock lock(mMutex);
    const size_t threads = serving + mServing + mRunningOneway;
    return {mPeer, static_cast<uint32_t>(descriptors), static_cast<uint32_t>(threads),
            mOutboxRoom + mOnewayRoom + mUnreadRoom};
}

bool Session::hasSent(IBinder* binder) {
    Mutex::Autolock lock(mMutex);
    return mExportedIds.count(binder) > 0;
}

bool Session::addServing(const ConnectionPtr& connection) {
    if (!remember(connection)) return false;
    Mutex::Autolock lock(mMutex);
    if (mEnded) return false;
    ++mCallable;
    mIdle.push_back(connection);
    mFreed.notify_all();
    return true;
}

bool Session::canCall() {
    Mutex::Autolock lock(mMutex);
    return mCallable > 0;
}

void Session::offerServing() {
    const size_t pool = startedPoolSize();
    for (;;) {
        {
            Mutex::Autolock lock(mMutex);
            if (mEnded || mDialer == nullptr || mOffered >= std::min(pool, 1 + mWanted)) return;
            ++mOffered;
        }
        // The thread first: a connection on which nobody serves would hold up who calls on it.
        if (!startThread("hidl-pool", [self = shared_from_this()] { self->serveOffered(); })) {
            Mutex::Autolock lock(mMutex);
            --mOffered;
            mOffersChanged.notify_all();
            Node::self().retrySoon();
            return;
        }
    }
}

void Session::awaitServing(std::chrono::steady_clock::time_point deadline) {
    Mutex::Autolock lock(mMutex);
    while (!mEnded && mOffered > 0 && mServing == 0) {
        if (mOffersChanged.wait_until(mMutex, deadline) == std::cv_status::timeout) return;
    }
}

void Session::serveOffered() {
    ConnectionPtr connection = mDialer(Role::kServe, kPeerLimit);
    if (connection != nullptr && remember(connection)) {
        {
            Mutex::Autolock lock(mMutex);
            ++mServing;
            mOffersChanged.notify_all();
        }
        Message message;
        while (connection->receive(&message) == Received::kMessage &&
               serveMessage(connection, &message) == OK) {
        }
        connection->shutdown();
        Mutex::Autolock lock(mMutex);
        --mServing;
    }
    Mutex::Autolock lock(mMutex);
    --mOffered;
    // The other side wants it again when it is missing; the first one must be there.
    if (mWanted > 0) --mWanted;
    if (mEnded) return;
    mOffersChanged.notify_all();
    if (mOffered == 0) Node::self().retrySoon();
}

bool Session::acceptServing(const ConnectionPtr& connection) {
    connection->limitSend(kPeerLimit);
    if (!remember(connection)) return false;
    CallServers::self().serve(shared_from_this(), connection);
    return true;
}

void Session::serveCalls(ServedConnection* served) {
    const ConnectionPtr& connection = served->connection();
    Message message;
    Received received;
    while ((received = connection->receive(&message)) == Received::kMessage && served->wake()) {
        if (serveMessage(connection, &message) != OK) return connection->shutdown();
        served->rest();
        if (CallServers::self().isShort()) served->letGo();
    }
    // Ended, or let go: who calls now makes another connection.
    served->letGo();
    connection->retire(received == Received::kMessage, WOULD_BLOCK);
}

status_t Session::serveMessage(const ConnectionPtr& connection, Message* message) {
    if (message->header.type == MessageType::kRefused) return WOULD_BLOCK;
    if (message->header.type != MessageType::kCall) {
        ALOGE("Closing a connection to pid %d: message %u where a call must be", peer(),
              static_cast<unsigned>(message->header.type));
        return BAD_TYPE;
    }
    Parcel reply;
    status_t status;
    {
        // What is served here can be found out while all threads are busy.
        std::optional<PoolSlot> slot;
        if (message->header.target != kRegistryObject) slot.emplace();
        if (!execute(connection, message, &reply, &status)) return FAILED_TRANSACTION;
        // Who does not read the reply holds up nobody else.
    }
    return answer(connection, reply, status) ? OK : DEAD_OBJECT;
}

status_t Session::call(uint64_t target, uint32_t code, const Parcel& data, Parcel* reply,
                       std::chrono::milliseconds limit) {
    MessageHeader header = Message::of(MessageType::kCall, target).header;
    header.code = code;
    std::vector<ObjectRef> refs;
    status_t status = encode(data, &refs);
    if (status != OK) return status;

    Patience patience;
    for (;;) {
        Loan loan(this, limit, &patience);
        if (loan.get() == nullptr) {
            status = goneStatus();
            break;
        }
        if (loan.get()->send(header, refs, data.bytes(), nullptr, data.descriptor())) {
            if (awaitReply(&loan, reply, &status)) return status;
        } else if (!mayGoElsewhere(&loan, &status)) {
            break;
        }
        // It was not taken: another connection may do.
    }
    undoEncode(refs);
    return status;
}

bool Session::mayGoElsewhere(Loan* loan, status_t* status) {
    const bool tooMany = errno == ETOOMANYREFS;
    ALOGE_IF(tooMany, "Too many descriptors are under way to pass one to pid %d", peer());
    *status = loan->broken(tooMany ? FAILED_TRANSACTION : DEAD_OBJECT);
    if (tooMany || !loan->borrowed()) return false;
    dropIdle();
    return true;
}

bool Session::awaitReply(Loan* loan, Parcel* reply, status_t* status) {
    ScopedFrame frame(this, loan->connection());
    Message message;
    for (;;) {
        switch (loan->receive(&message)) {
            case Received::kMessage:
                break;
            case Received::kInvalid:
                *status = loan->broken(FAILED_TRANSACTION);
                return true;
            case Received::kWouldBlock:
                *status = loan->broken(TIMED_OUT);
                return true;
            case Received::kHangup:
                *status = loan->broken(DEAD_OBJECT);
                return true;
        }
        const MessageType type = message.header.type;
        if (type == MessageType::kRefused && loan->borrowed()) {
            loan->broken(WOULD_BLOCK);
            return false;
        }
        if (type == MessageType::kCall) {
            Parcel answered;
            if (!execute(loan->connection(), &message, &answered, status)) {
                *status = loan->broken(FAILED_TRANSACTION);
                return true;
            }
            if (!answer(loan->connection(), answered, *status)) {
                *status = loan->broken(DEAD_OBJECT);
                return true;
            }
            continue;
        }
        const status_t decoded = type == MessageType::kReply ? decode(&message, reply) : BAD_TYPE;
        if (decoded != OK && decoded != NO_MEMORY) {
            // What it refers to is gone with the session.
            ALOGE_IF(!ended(), "Closing a connection to pid %d: no valid reply", peer());
            *status = loan->broken(FAILED_TRANSACTION);
            return true;
        }
        if (message.header.target != 0) acknowledge(message.header.target);
        *status = decoded == OK ? message.header.status : FAILED_TRANSACTION;
        return true;
    }
}

status_t Session::callOneway(uint64_t target, uint32_t code, const Parcel& data) {
    if (data.descriptor() >= 0) {
        ALOGE("A descriptor cannot be passed to pid %d in a oneway call", peer());
        return INVALID_OPERATION;
    }
    Message message = Message::of(MessageType::kOneway, target);
    message.header.code = code;
    status_t status = encode(data, &message.objects);
    if (status != OK) return status;
    message.data = data.bytes().copy();
    if (message.payloadSize() > kMaxOnewaySize) {
        ALOGE("A oneway call of %zu bytes is over the %zu that fit", message.payloadSize(),
              kMaxOnewaySize);
        undoEncode(message.objects);
        return FAILED_TRANSACTION;
    }
    status = OK;
    {
        Mutex::Autolock lock(mMutex);
        if (mEnded) {
            status = DEAD_OBJECT;
        } else if (mOutboxRoom >= kMaxOutboxRoom) {
            status = FAILED_TRANSACTION;
        } else {
            mOutboxRoom += message.room();
            mOutbox.push_back(std::move(message));
            sendWaiting();
            return OK;
        }
    }
    undoEncode(message.objects);
    return status;
}

bool Session::execute(const ConnectionPtr& connection, Message* message, Parcel* reply,
                      status_t* status) {
    // The registry can be called, but is not an object that anybody could pass on.
    const uint64_t id = message->header.target;
    sp<IBinder> target = id == kRegistryObject ? Node::self().registryObject() : exported(id);
    Parcel data;
    const status_t decoded = target == nullptr ? NAME_NOT_FOUND : decode(message, &data);
    if (decoded == NO_MEMORY || (decoded == OK && ScopedFrame::depth() >= kMaxFrames)) {
        *status = FAILED_TRANSACTION;
        return true;
    }
    if (decoded != OK) {
        // Who was killed while its call waited has nothing any more, and is not to blame.
        ALOGE_IF(
                !ended(),
                "Closing a connection to pid %d: a call to or with an object that it does not have",
                peer());
        return false;
    }
    ScopedFrame frame(this, connection);
    ScopedCaller caller(peer());
    *status = target->transact(message->header.code, data, reply, 0, [](Parcel&) {});
    return true;
}

bool Session::answer(const ConnectionPtr& connection, const Parcel& reply, status_t status) {
    MessageHeader header = Message::of(MessageType::kReply).header;
    std::vector<ObjectRef> refs;
    if (status == OK) status = encode(reply, &refs);
    if (status == OK && !refs.empty()) {
        status = awaitAcknowledgement(reply, refs, &header.target);
    }
    header.status = status;
    const Bytes nothing;
    const Bytes& bytes = status == OK ? reply.bytes() : nothing;
    if (status != OK) {
        undoEncode(refs);
        refs.clear();
    }
    const size_t room = std::max(bytes.size(), kSocketRoom);
    bool counted = false;
    const auto waits = [&] { return waitsForReader(room, &counted); };
    const std::function<bool()> goOn = std::cref(waits);  // by reference it needs no allocation
    const int descriptor = status == OK ? reply.descriptor() : -1;
    const bool sent = connection->send(header, refs, bytes, &goOn, descriptor);
    if (!sent) undoEncode(refs);
    if (sent && !counted) return true;
    std::vector<sp<IBinder>> unsent;  // released when the lock is
    Mutex::Autolock lock(mMutex);
    if (counted) mUnreadRoom -= room;
    auto unacknowledged = mUnacknowledged.find(header.target);
    if (!sent && unacknowledged != mUnacknowledged.end()) {
        unsent = std::move(unacknowledged->second);
        mUnacknowledged.erase(unacknowledged);
    }
    return sent;
}

bool Session::waitsForReader(size_t room, bool* counted) {
    Mutex::Autolock lock(mMutex);
    if (!*counted) mUnreadRoom += room;
    *counted = true;
    if (mEnded || mUnreadRoom <= kMaxUnreadRoom) return !mEnded;
    ALOGE("Ending the session with pid %d: it leaves its replies unread", peer());
    mControl->shutdown();
    return false;
}

sp<IBinder> Session::exported(uint64_t id) {
    Mutex::Autolock lock(mMutex);
    auto it = mExported.find(id);
    return it == mExported.end() ? nullptr : it->second.binder;
}

status_t Session::encode(const Parcel& parcel, std::vector<ObjectRef>* refs) {
    const size_t size = parcel.objects().size() * sizeof(ObjectRef) + parcel.bytes().size();
    if (size > kMaxTransactionSize) {
        ALOGE("A transaction of %zu bytes with pid %d is over the %zu that fit", size, peer(),
              kMaxTransactionSize);
        return FAILED_TRANSACTION;
    }
    return parcel.objects().empty() ? static_cast<status_t>(OK) : encodeObjects(parcel, refs);
}

status_t Session::encodeObjects(const Parcel& parcel, std::vector<ObjectRef>* refs) {
    Mutex::Autolock lock(mMutex);
    if (mEnded) return DEAD_OBJECT;
    for (const sp<IBinder>& binder : parcel.objects()) {
        const BpHwBinder* proxy = binder->remoteBinder();
        if (proxy != nullptr && proxy->session() != this) {
            ALOGE("An object of pid %d cannot be handed on to pid %d", proxy->session()->peer(),
                  peer());
            undoEncodeLocked(*refs);
            refs->clear();
            return INVALID_OPERATION;
        }
        if (proxy != nullptr) {
            refs->push_back({proxy->id(), ObjectRef::kReceiver, 0});
            continue;
        }
        uint64_t& id = mExportedIds[binder.get()];
        if (id == 0) {
            id = mNextId++;
            mExported[id].binder = binder;
        }
        ++mExported[id].sent;
        refs->push_back({id, ObjectRef::kSender, 0});
    }
    return OK;
}

void Session::undoEncode(const std::vector<ObjectRef>& refs) {
    if (refs.empty()) return;
    Mutex::Autolock lock(mMutex);
    undoEncodeLocked(refs);
}

void Session::undoEncodeLocked(const std::vector<ObjectRef>& refs) {
    for (const ObjectRef& ref : refs) {
        // The caller's parcel still holds the object, so nothing is destroyed here.
        if (ref.owner == ObjectRef::kSender) takeBackLocked(ref.id, 1, nullptr);
    }
}

bool Session::takeBackLocked(uint64_t id, uint64_t amount, sp<IBinder>* last) {
    auto it = mExported.find(id);
    if (it == mExported.end() || amount > it->second.sent) return false;
    it->second.sent -= amount;
    if (it->second.sent > 0) return true;
    mExportedIds.erase(it->second.binder.get());
    if (last != nullptr) *last = std::move(it->second.binder);
    mExported.erase(it);
    return true;
}

status_t Session::decode(Message* message, Parcel* parcel) {
    std::vector<sp<IBinder>> objects;
    objects.reserve(message->objects.size());
    status_t status = OK;
    for (const ObjectRef& ref : message->objects) {
        const bool theirs = ref.owner == ObjectRef::kSender;
        objects.push_back(theirs ? proxyFor(ref.id) : exported(ref.id));
        if (objects.back() != nullptr) continue;
        if (!theirs) status = BAD_VALUE;
        if (status == OK) status = NO_MEMORY;
    }
    parcel->setReceived(std::move(message->data), std::move(objects));
    if (message->descriptor.get() >= 0) parcel->setDescriptor(message->descriptor.release());
    return status;
}

sp<IBinder> Session::proxyFor(uint64_t id) {
    Mutex::Autolock lock(mMutex);
    auto it = mProxies.find(id);
    sp<BpHwBinder> proxy = it == mProxies.end() ? nullptr : it->second.promote();
    if (proxy == nullptr) {
        if (mProxies.size() + mReleases.size() >= kMaxProxies) {
            giveUp(id, 1);
            return nullptr;
        }
        proxy = new BpHwBinder(shared_from_this(), id);
        mProxies[id] = proxy;
    }
    ++proxy->received;
    return proxy;
}

void Session::proxyGone(BpHwBinder* proxy) {
    Mutex::Autolock lock(mMutex);
    auto it = mProxies.find(proxy->id());
    // A successor may stand there already.
    if (it != mProxies.end() && it->second.unsafe_get() == proxy) mProxies.erase(it);
    giveUp(proxy->id(), proxy->received);
}

void Session::giveUp(uint64_t id, uint64_t amount) {
    if (mEnded) return;
    mReleases[id] += amount;
    sendWaiting();
    if (mReleases.size() <= 2 * kMaxProxies) return;
    ALOGE("Ending the session with pid %d: it does not take back its objects", peer());
    mControl->shutdown();
}

status_t Session::awaitAcknowledgement(const Parcel& reply, const std::vector<ObjectRef>& refs,
                                       uint64_t* ack) {
    // A reply may bring the receiver's own objects back. Our proxies of them must live until it has
    // taken the reply, or the release could overtake it and the object be gone.
    const bool refersBack = std::any_of(refs.begin(), refs.end(), [](const ObjectRef& ref) {
        return ref.owner == ObjectRef::kReceiver;
    });
    if (!refersBack) return OK;
    Mutex::Autolock lock(mMutex);
    if (mEnded) return OK;
    if (mUnacknowledged.size() >= kMaxUnacknowledged) return FAILED_TRANSACTION;
    mUnacknowledged[mNextAck] = reply.objects();
    *ack = mNextAck++;
    return OK;
}

void Session::acknowledge(uint64_t ack) {
    Mutex::Autolock lock(mMutex);
    if (mEnded) return;
    mAcks.push_back(ack);
    sendWaiting();
    if (mAcks.size() <= 4 * kMaxUnacknowledged) return;
    ALOGE("Ending the session with pid %d: it does not read that its replies have arrived", peer());
    mControl->shutdown();
}

void Session::sendWaiting() {
    if (mEnded) return;
    const auto send = [control = mControl.get()](const Message& message) {
        return control->trySend(message) != Received::kWouldBlock;
    };
    bool room = true;
    while (room && !mAcks.empty()) {
        room = send(Message::of(MessageType::kAck, mAcks.back()));
        if (room) mAcks.pop_back();
    }
    if (room && mWants) {
        room = send(Message::of(MessageType::kWant));
        mWants = !room;
    }
    while (room && !mOutbox.empty()) {
        room = send(mOutbox.front());
        if (!room) break;
        mOutboxRoom -= mOutbox.front().room();
        mOutbox.pop_front();
    }
    // A oneway call before them may be with what they release.
    while (room && !mReleases.empty()) {
        Message release = Message::of(MessageType::kRelease, mReleases.begin()->first);
        uint64_t& left = mReleases.begin()->second;
        release.header.amount = static_cast<uint32_t>(std::min<uint64_t>(left, UINT32_MAX));
        room = send(release);
        if (room) left -= release.header.amount;
        if (left == 0) mReleases.erase(mReleases.begin());
    }
    mWaiting = !room;
    updateEvents();
}

bool Session::onControlEvents(uint32_t events) {
    const ConnectionPtr control = this->control();
    if (control == nullptr) return false;
    if (events & EPOLLOUT) {
        Mutex::Autolock lock(mMutex);
        sendWaiting();
    }
    if (!(events & EPOLLIN)) return !(events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR));
    for (int i = 0; i < kControlBurst; ++i) {
        Message message;
        switch (control->tryReceive(&message)) {
            case Received::kWouldBlock:
                return true;
            case Received::kMessage:
                break;
            default:
                return false;
        }
        if (!onControlMessage(&message)) {
            ALOGE("Ending the session with pid %d: message %u is not valid", peer(),
                  static_cast<unsigned>(message.header.type));
            return false;
        }
        // The rest stays in the socket, and what the other side sends further fills it.
        if (!takesOneways()) return true;
    }
    return true;
}

bool Session::takesOneways() {
    Mutex::Autolock lock(mMutex);
    return mOnewayRoom < kMaxOnewayRoom;
}

bool Session::onControlMessage(Message* message) {
    const MessageHeader& header = message->header;
    switch (header.type) {
        case MessageType::kRelease: {
            sp<IBinder> last;
            bool valid;
            {
                Mutex::Autolock lock(mMutex);
                valid = takeBackLocked(header.target, header.amount, &last);
            }
            // Its destructor is the application's.
            if (last != nullptr) Node::self().janitor().post([last = std::move(last)] {});
            return valid;
        }
        case MessageType::kAck: {
            std::vector<sp<IBinder>> taken;
            {
                Mutex::Autolock lock(mMutex);
                auto it = mUnacknowledged.find(header.target);
                if (it == mUnacknowledged.end()) return false;
                taken = std::move(it->second);
                mUnacknowledged.erase(it);
            }
            Node::self().janitor().post([taken = std::move(taken)] {});
            return true;
        }
        case MessageType::kOneway:
            return onOneway(message);
        case MessageType::kWant: {
            {
                Mutex::Autolock lock(mMutex);
                // Beyond what the pool has, it is kept until the pool grows.
                mWanted = std::max(mWanted, std::min(mOffered, kMaxCalls));
            }
            offerServing();
            return mDialer != nullptr;
        }
        default:
            return false;
    }
}

bool Session::onOneway(Message* message) {
    const size_t room = message->room();
    const uint32_t code = message->header.code;
    sp<IBinder> target = exported(message->header.target);
    // Taken apart now: a release behind it may be for what it refers to.
    auto data = std::make_shared<Parcel>();
    message->data = message->data.copy();
    const status_t decoded = target == nullptr ? NAME_NOT_FOUND : decode(message, data.get());
    if (decoded == NO_MEMORY) return true;  // this one call is lost
    if (decoded != OK) return false;
    Mutex::Autolock lock(mMutex);
    mOneways.push_back({std::move(target), std::move(data), code, room});
    mOnewayRoom += room;
    updateEvents();
    if (mRunningOneway) return true;
    mRunningOneway = true;
    runOnPool([self = shared_from_this()] { self->runOneway(); });
    return true;
}

void Session::runOneway() {
    size_t room;
    {
        Oneway call;
        {
            Mutex::Autolock lock(mMutex);
            call = std::move(mOneways.front());
            mOneways.pop_front();
        }
        room = call.room;
        ScopedCaller caller(0);
        Parcel reply;
        call.target->transact(call.code, *call.data, &reply, IBinder::FLAG_ONEWAY, [](Parcel&) {});
    }
    Mutex::Autolock lock(mMutex);
    mOnewayRoom -= room;
    updateEvents();
    mRunningOneway = !mOneways.empty();
    // Behind what waits for the pool already.
    if (mRunningOneway) runOnPool([self = shared_from_this()] { self->runOneway(); });
}

void Session::updateEvents() {
    uint32_t events = kQuietEvents;
    if (mOnewayRoom >= kMaxOnewayRoom) events &= ~EPOLLIN;
    if (mWaiting) events |= EPOLLOUT;
    if (mEnded || events == mEvents) return;
    mEvents = events;
    Node::self().watch(*mControl, events);
}

void Session::end() {
    ConnectionPtr control;
    std::vector<ConnectionPtr> connections;
    std::vector<sp<BpHwBinder>> proxies;
    decltype(mExported) exported;
    decltype(mUnacknowledged) unacknowledged;
    {
        Mutex::Autolock lock(mMutex);
        if (mEnded) return;
        mEnded = true;
        control.swap(mControl);
        for (const auto& weak : mAll) connections.push_back(weak.lock());
        for (const auto& entry : mProxies) proxies.push_back(entry.second.promote());
        exported.swap(mExported);
        unacknowledged.swap(mUnacknowledged);
        mExportedIds.clear();
        mIdle.clear();
        mOutbox.clear();
        mFreed.notify_all();
        mOffersChanged.notify_all();
    }
    control->shutdown();
    for (const ConnectionPtr& connection : connections) {
        if (connection != nullptr) connection->shutdown();
    }
    for (const sp<BpHwBinder>& proxy : proxies) {
        if (proxy != nullptr) proxy->postObituary();
    }
    Node::self().janitor().post(
            [exported = std::move(exported), unacknowledged = std::move(unacknowledged)] {});
}

status_t Session::goneStatus() {
    const ConnectionPtr control = this->control();
    return control == nullptr || control->hungUp() ? DEAD_OBJECT : FAILED_TRANSACTION;
}

}}}  // namespace android::hardware::host
