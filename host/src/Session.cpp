#define LOG_TAG "hidl"

#include "Session.h"

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

// Payload of oneway calls that may wait for an object of this process; then they are left in the
// socket, which fills.
constexpr size_t kMaxQueuedOneways = 1024 * 1024;

// Payload of oneway calls that may wait for room in the control socket; then calls fail.
constexpr size_t kMaxOutbox = 512 * 1024;

// Messages taken from one control connection before others get their turn.
constexpr int kControlBurst = 64;

// Which connection this thread is using for which session: what comes back from there, and what it
// calls there meanwhile, goes over the same one.
struct Frame {
    const Session* session;
    ConnectionPtr connection;
};

std::vector<Frame>& frames() {
    thread_local std::vector<Frame> stack;
    return stack;
}

class ScopedFrame {
  public:
    ScopedFrame(const Session* session, const ConnectionPtr& connection) {
        frames().push_back({session, connection});
    }
    ~ScopedFrame() { frames().pop_back(); }
};

ConnectionPtr connectionInUse(const Session* session) {
    for (auto it = frames().rbegin(); it != frames().rend(); ++it) {
        if (it->session == session) return it->connection;
    }
    return nullptr;
}

}  // namespace

Session::Session(Token token, ConnectionPtr control, Dialer dialer)
    : mToken(token), mControl(std::move(control)), mDialer(std::move(dialer)) {}

// The outgoing connection of one call.
class Session::Loan {
  public:
    // limit: for each answer, 0 for none. Who waits for our answer there is not stopped, so then
    // there is none.
    Loan(Session* session, std::chrono::milliseconds limit)
        : mSession(session), mConnection(connectionInUse(session)) {
        if (mConnection != nullptr) return;
        mConnection = session->borrow();
        mBorrowed = mConnection != nullptr;
        mLimited = mBorrowed && limit.count() > 0;
        if (mLimited) mConnection->limitReceive(limit);
    }
    ~Loan() {
        if (mLimited) mConnection->limitReceive({});
        if (mBorrowed) mSession->giveBack(std::move(mConnection), mBroken);
    }
    const ConnectionPtr& get() const { return mConnection; }
    status_t broken(status_t status) {
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

bool Session::ended() {
    Mutex::Autolock lock(mMutex);
    return mEnded;
}

ConnectionPtr Session::borrow() {
    {
        Mutex::Autolock lock(mMutex);
        // Without a pool the other process would never answer: as on a device, the caller waits.
        while (!mEnded && mIdle.empty() && mDialer == nullptr) mChanged.wait(mMutex);
        if (mEnded) return nullptr;
        if (!mIdle.empty()) {
            ConnectionPtr connection = std::move(mIdle.back());
            mIdle.pop_back();
            return connection;
        }
    }
    ConnectionPtr connection = mDialer(Role::kCall);
    if (connection != nullptr) remember(connection);
    return connection;
}

void Session::giveBack(ConnectionPtr connection, bool broken) {
    Mutex::Autolock lock(mMutex);
    if (broken || mEnded) return;
    mIdle.push_back(std::move(connection));
    mChanged.notify_one();
}

bool Session::remember(const ConnectionPtr& connection) {
    Mutex::Autolock lock(mMutex);
    mAll.erase(std::remove_if(mAll.begin(), mAll.end(),
                              [](const std::weak_ptr<Connection>& weak) { return weak.expired(); }),
               mAll.end());
    mAll.push_back(connection);
    if (mEnded) connection->shutdown();
    return mAll.size() <= kMaxConnections;
}

bool Session::addServing(const ConnectionPtr& connection) {
    if (!remember(connection)) return false;
    giveBack(connection, false);
    return true;
}

void Session::offerServing(size_t count) {
    for (;;) {
        {
            Mutex::Autolock lock(mMutex);
            if (mEnded || mDialer == nullptr || mServing >= count) return;
            ++mServing;
        }
        // The thread first: a connection on which nobody serves would hold up who calls on it.
        if (!startThread("hidl-pool", [self = shared_from_this()] { self->serveOffered(); })) {
            Mutex::Autolock lock(mMutex);
            --mServing;
            Node::self().retrySoon();
            return;
        }
    }
}

void Session::serveOffered() {
    ConnectionPtr connection = mDialer(Role::kServe);
    if (connection != nullptr) {
        remember(connection);
        serve(connection);
    }
    Mutex::Autolock lock(mMutex);
    --mServing;
    if (!mEnded) Node::self().retrySoon();
}

bool Session::acceptServing(const ConnectionPtr& connection) {
    if (!remember(connection)) return false;
    if (!startThread("hidl-pool",
                     [self = shared_from_this(), connection] { self->serve(connection); })) {
        connection->trySend(Message::of(MessageType::kRefused));
        connection->shutdown();
    }
    return true;
}

void Session::serve(const ConnectionPtr& connection) {
    Message message;
    while (connection->receive(&message) == Received::kMessage) {
        if (message.header.type != MessageType::kCall) {
            ALOGE("Closing a connection to pid %d: message %u where a call must be", peer(),
                  static_cast<unsigned>(message.header.type));
            break;
        }
        // What is served here can be found out while all threads are busy.
        std::optional<PoolSlot> slot;
        if (message.header.target != kRegistryObject) slot.emplace();
        if (serveCall(connection, &message) != OK) break;
    }
    connection->shutdown();
}

status_t Session::call(uint64_t target, uint32_t code, const Parcel& data, Parcel* reply,
                       std::chrono::milliseconds limit) {
    MessageHeader header = Message::of(MessageType::kCall, target).header;
    header.code = code;
    std::vector<ObjectRef> refs;
    status_t status = encode(data, &refs);
    if (status != OK) return status;

    Loan loan(this, limit);
    if (loan.get() == nullptr) {
        undoEncode(refs);
        return goneStatus();
    }
    const auto refused = [](const Message& message) {
        return message.header.type == MessageType::kRefused;
    };
    if (!loan.get()->send(header, refs, data.bytes())) {
        undoEncode(refs);
        Message answer;
        const Received received = loan.get()->tryReceive(&answer);
        return loan.broken(received == Received::kMessage && refused(answer) ? FAILED_TRANSACTION
                                                                             : DEAD_OBJECT);
    }
    ScopedFrame frame(this, loan.get());
    for (;;) {
        Message message;
        switch (loan.get()->receive(&message)) {
            case Received::kMessage:
                break;
            case Received::kInvalid:
                return loan.broken(FAILED_TRANSACTION);
            case Received::kWouldBlock:
                return loan.broken(TIMED_OUT);
            case Received::kHangup:
                return loan.broken(DEAD_OBJECT);
        }
        if (refused(message)) {
            undoEncode(refs);
            return loan.broken(FAILED_TRANSACTION);
        }
        if (message.header.type == MessageType::kCall) {
            status = serveCall(loan.get(), &message);
            if (status != OK) return loan.broken(status);
            continue;
        }
        if (message.header.type != MessageType::kReply || !decode(&message, reply)) {
            // What it refers to is gone with the session.
            ALOGE_IF(!ended(), "Closing a connection to pid %d: no valid reply", peer());
            return loan.broken(FAILED_TRANSACTION);
        }
        if (message.header.target != 0) acknowledge(message.header.target);
        return message.header.status;
    }
}

status_t Session::callOneway(uint64_t target, uint32_t code, const Parcel& data) {
    Message message = Message::of(MessageType::kOneway, target);
    message.header.code = code;
    status_t status = encode(data, &message.objects);
    if (status != OK) return status;
    message.data = data.bytes();
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
        } else if (mOutboxSize >= kMaxOutbox) {
            status = FAILED_TRANSACTION;
        } else {
            // The outbox keeps the order: a release of what this call refers to comes behind it.
            post(std::move(message));
            return OK;
        }
    }
    undoEncode(message.objects);
    return status;
}

status_t Session::serveCall(const ConnectionPtr& connection, Message* message) {
    Parcel reply;
    status_t status;
    {
        // The registry can be called, but is not an object that anybody could pass on.
        const uint64_t id = message->header.target;
        sp<IBinder> target = id == kRegistryObject ? Node::self().registryObject() : exported(id);
        Parcel data;
        if (target == nullptr || !decode(message, &data)) {
            // Who was killed while its call waited has nothing any more, and is not to blame.
            ALOGE_IF(!ended(),
                     "Closing a connection to pid %d: a call to or with an object that it does not "
                     "have",
                     peer());
            return FAILED_TRANSACTION;
        }
        ScopedFrame frame(this, connection);
        ScopedCaller caller(peer());
        status = target->transact(message->header.code, data, &reply, 0, [](Parcel&) {});
    }
    MessageHeader header = Message::of(MessageType::kReply).header;
    std::vector<ObjectRef> refs;
    if (status == OK) status = encode(reply, &refs);
    header.status = status;
    bool sent;
    if (status != OK) {
        sent = connection->send(header, {}, {});
    } else {
        header.target = awaitAcknowledgement(reply, refs);
        sent = connection->send(header, refs, reply.bytes());
        if (!sent) undoEncode(refs);
    }
    return sent ? static_cast<status_t>(OK) : static_cast<status_t>(DEAD_OBJECT);
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
    Mutex::Autolock lock(mMutex);
    for (const sp<IBinder>& binder : parcel.objects()) {
        const BpHwBinder* proxy = binder->remoteBinder();
        if (proxy != nullptr && proxy->session() != this) {
            ALOGE("An object of pid %d cannot be handed on to pid %d", proxy->session()->peer(),
                  peer());
            undoEncodeLocked(*refs);
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

bool Session::decode(Message* message, Parcel* parcel) {
    std::vector<sp<IBinder>> objects;
    objects.reserve(message->objects.size());
    bool known = true;
    for (const ObjectRef& ref : message->objects) {
        objects.push_back(ref.owner == ObjectRef::kSender ? proxyFor(ref.id) : exported(ref.id));
        known &= objects.back() != nullptr;
    }
    parcel->setReceived(std::move(message->data), std::move(objects));
    return known;
}

sp<IBinder> Session::proxyFor(uint64_t id) {
    Mutex::Autolock lock(mMutex);
    auto it = mProxies.find(id);
    sp<BpHwBinder> proxy = it == mProxies.end() ? nullptr : it->second.promote();
    if (proxy == nullptr) {
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
    Message release = Message::of(MessageType::kRelease, proxy->id());
    release.header.amount = proxy->received;
    post(std::move(release));
}

uint64_t Session::awaitAcknowledgement(const Parcel& reply, const std::vector<ObjectRef>& refs) {
    // A reply may bring the receiver's own objects back. Our proxies of them must live until it has
    // taken the reply, or the release could overtake it and the object be gone.
    const bool refersBack = std::any_of(refs.begin(), refs.end(), [](const ObjectRef& ref) {
        return ref.owner == ObjectRef::kReceiver;
    });
    if (!refersBack) return 0;
    Mutex::Autolock lock(mMutex);
    if (mEnded) return 0;
    mUnacknowledged[mNextAck] = reply.objects();
    return mNextAck++;
}

void Session::acknowledge(uint64_t ack) {
    Mutex::Autolock lock(mMutex);
    post(Message::of(MessageType::kAck, ack));
}

void Session::post(Message message) {
    if (mEnded) return;
    mOutboxSize += message.payloadSize();
    mOutbox.push_back(std::move(message));
    sendOutbox();
}

void Session::sendOutbox() {
    while (!mOutbox.empty() && mControl->trySend(mOutbox.front()) != Received::kWouldBlock) {
        mOutboxSize -= mOutbox.front().payloadSize();
        mOutbox.pop_front();
    }
    updateEvents();
}

bool Session::onControlEvents(uint32_t events) {
    if (events & EPOLLOUT) {
        Mutex::Autolock lock(mMutex);
        sendOutbox();
    }
    if (!(events & EPOLLIN)) return !(events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR));
    for (int i = 0; i < kControlBurst; ++i) {
        Message message;
        switch (mControl->tryReceive(&message)) {
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
        if (mHeldOneway != nullptr) return true;
    }
    return true;
}

bool Session::retry() {
    offerServing(Node::self().poolSize());
    if (mHeldOneway == nullptr) return true;
    const std::unique_ptr<Message> message = std::move(mHeldOneway);
    {
        Mutex::Autolock lock(mMutex);
        mHolding = false;
        updateEvents();
    }
    return onOneway(message.get());
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
            if (last != nullptr) Node::self().janitor().post([last] {});
            return valid;
        }
        case MessageType::kAck: {
            std::vector<sp<IBinder>> taken;  // released when the lock is
            Mutex::Autolock lock(mMutex);
            auto it = mUnacknowledged.find(header.target);
            if (it == mUnacknowledged.end()) return false;
            taken = std::move(it->second);
            mUnacknowledged.erase(it);
            return true;
        }
        case MessageType::kOneway:
            return onOneway(message);
        default:
            return false;
    }
}

bool Session::onOneway(Message* message) {
    if (!mOneways.start()) {
        mHeldOneway = std::make_unique<Message>(std::move(*message));
        Mutex::Autolock lock(mMutex);
        mHolding = true;
        updateEvents();
        Node::self().retrySoon();
        return true;
    }
    const size_t size = message->payloadSize();
    sp<IBinder> target = exported(message->header.target);
    // Taken apart now: a release behind it may be for what it refers to.
    auto data = std::make_shared<Parcel>();
    if (target == nullptr || !decode(message, data.get())) return false;
    {
        Mutex::Autolock lock(mMutex);
        mQueuedOneways += size;
        updateEvents();
    }
    mOneways.post([self = shared_from_this(), target, data, size, code = message->header.code] {
        {
            PoolSlot slot;
            ScopedCaller caller(0);
            Parcel reply;
            target->transact(code, *data, &reply, IBinder::FLAG_ONEWAY, [](Parcel&) {});
        }
        Mutex::Autolock lock(self->mMutex);
        self->mQueuedOneways -= size;
        self->updateEvents();
    });
    return true;
}

void Session::updateEvents() {
    uint32_t events = kQuietEvents;
    if (mHolding || mQueuedOneways >= kMaxQueuedOneways) events &= ~EPOLLIN;
    if (!mOutbox.empty()) events |= EPOLLOUT;
    if (mEnded || events == mEvents) return;
    mEvents = events;
    Node::self().watch(mControl->fd(), events);
}

void Session::end() {
    std::vector<ConnectionPtr> connections;
    std::vector<sp<BpHwBinder>> proxies;
    decltype(mExported) exported;
    decltype(mUnacknowledged) unacknowledged;
    {
        Mutex::Autolock lock(mMutex);
        if (mEnded) return;
        mEnded = true;
        for (const auto& weak : mAll) connections.push_back(weak.lock());
        for (const auto& entry : mProxies) proxies.push_back(entry.second.promote());
        exported.swap(mExported);
        unacknowledged.swap(mUnacknowledged);
        mExportedIds.clear();
        mIdle.clear();
        mChanged.notify_all();
    }
    mControl->shutdown();
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
    const bool hungUp = mControl->hungUp();
    Mutex::Autolock lock(mMutex);
    return mEnded || hungUp ? DEAD_OBJECT : FAILED_TRANSACTION;
}

}}}  // namespace android::hardware::host
