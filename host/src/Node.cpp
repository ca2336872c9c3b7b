#define LOG_TAG "hidl"

#include "Node.h"

#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include <log/log.h>

#include "Registry.h"
#include "Thread.h"
#include "ThreadState.h"

namespace android { namespace hardware { namespace host {

namespace {

// Connections that may be silent at a time; the one with the lowest descriptor goes first.
constexpr size_t kMaxStrangers = 128;

Message hello(Role role, const Token& token) {
    Message message = Message::of(MessageType::kHello);
    message.header.code = static_cast<uint32_t>(role);
    message.header.token[0] = token[0];
    message.header.token[1] = token[1];
    return message;
}

}  // namespace

Node& Node::self() {
    static auto* node = new Node;
    return *node;
}

Node::Node() = default;

bool Node::start() {
    Mutex::Autolock lock(mMutex);
    if (mStarted) return true;
    if (mEpoll.get() < 0) mEpoll.reset(epoll_create1(EPOLL_CLOEXEC));
    if (mTimer.get() < 0) mTimer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (mEpoll.get() < 0 || mTimer.get() < 0) {
        ALOGE("Cannot talk to other processes: %s", strerror(errno));
        return false;
    }
    epoll_event event = {EPOLLIN, {.fd = mTimer.get()}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mTimer.get(), &event);
    mStarted = mJanitor.start() && startThread("hidl-control", [this] { run(); });
    return mStarted;
}

size_t Node::poolSize() {
    return startedPoolSize();
}

void Node::setRegistryObject(const sp<IBinder>& object) {
    Mutex::Autolock lock(mMutex);
    mRegistryObject = object;
}

sp<IBinder> Node::registryObject() {
    Mutex::Autolock lock(mMutex);
    return mRegistryObject;
}

std::string Node::listen() {
    Mutex::Autolock listenLock(mListenMutex);
    if (!mSocketName.empty() || !start()) return mSocketName;
    std::string name;
    base::unique_fd fd = Registry::self().listen(&name);
    if (fd.get() < 0) return "";
    mSocketName = name;

    Mutex::Autolock lock(mMutex);
    mListener = std::move(fd);
    mRemovals.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    Registry::self().watchRemovals(mRemovals.get());
    for (int watched : {mListener.get(), mRemovals.get()}) {
        epoll_event event = {EPOLLIN, {.fd = watched}};
        epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, watched, &event);
    }
    // What was removed before it was watched.
    retrySoon();
    return name;
}

SessionPtr Node::dial(const std::string& socketName) {
    if (!start()) return nullptr;
    {
        Mutex::Autolock lock(mDialMutex);
        const bool another = mDialling.count(socketName) > 0;
        while (mDialling.count(socketName) > 0) mDialChanged.wait(mDialMutex);
        // Those that have ended go, with their descriptors: a client outlives many services.
        for (auto it = mDialled.begin(); it != mDialled.end();) {
            it = it->second->ended() ? mDialled.erase(it) : std::next(it);
        }
        auto it = mDialled.find(socketName);
        if (it != mDialled.end()) return it->second;
        if (another) return nullptr;  // as the other one has found
        mDialling.insert(socketName);
    }
    SessionPtr session = greetAt(socketName);
    {
        Mutex::Autolock lock(mDialMutex);
        mDialling.erase(socketName);
        if (session != nullptr) mDialled[socketName] = session;
        mDialChanged.notify_all();
    }
    if (session != nullptr) session->offerServing(poolSize());
    return session;
}

SessionPtr Node::greetAt(const std::string& socketName) {
    Token token;
    if (getrandom(token.data(), sizeof(token), 0) != sizeof(token)) return nullptr;
    const auto begin = std::chrono::steady_clock::now();
    ConnectionPtr control = Registry::self().connect(socketName, kPeerLimit);
    if (control == nullptr) return nullptr;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            begin + kPeerLimit - std::chrono::steady_clock::now());
    control->limitReceive(std::max(left, std::chrono::milliseconds(1)));
    Message answer;
    if (!control->send(hello(Role::kControl, token)) ||
        control->receive(&answer) != Received::kMessage ||
        answer.header.type != MessageType::kHello) {
        return nullptr;
    }
    control->limitReceive({});
    const pid_t peer = control->peer();
    auto session = std::make_shared<Session>(
            token, std::move(control), [socketName, token, peer](Role role) -> ConnectionPtr {
                ConnectionPtr connection = Registry::self().connect(socketName, kPeerLimit);
                if (connection == nullptr || connection->peer() != peer ||
                    !connection->send(hello(role, token))) {
                    return nullptr;
                }
                return connection;
            });
    addSession(session);
    return session;
}

void Node::offerServing() {
    std::vector<SessionPtr> sessions;
    {
        Mutex::Autolock lock(mMutex);
        for (const auto& entry : mSessions) sessions.push_back(entry.second);
    }
    for (const SessionPtr& session : sessions) session->offerServing(poolSize());
}

void Node::retrySoon() {
    if (mRetrying.exchange(true)) return;
    const itimerspec second = {{}, {1, 0}};
    timerfd_settime(mTimer.get(), 0, &second, nullptr);
}

void Node::retry() {
    uint64_t count;
    if (read(mTimer.get(), &count, sizeof(count)) < 0) return;
    mRetrying = false;
    keepRegistered();
    std::vector<SessionPtr> sessions;
    {
        Mutex::Autolock lock(mMutex);
        for (const auto& entry : mSessions) sessions.push_back(entry.second);
    }
    for (const SessionPtr& session : sessions) {
        if (!session->retry()) endSession(session);
    }
}

void Node::keepRegistered() {
    int removals;
    {
        Mutex::Autolock lock(mMutex);
        if (mListener.get() < 0) return;
        removals = mRemovals.get();
    }
    // All that it tells is that it is time to look.
    char events[4096];
    while (read(removals, events, sizeof(events)) > 0) {
    }
    const bool watched = Registry::self().watchRemovals(removals);
    base::unique_fd listener;
    if (!Registry::self().putBack(&listener) || !watched) retrySoon();
    if (listener.get() < 0) return;
    // Whoever still found the old one is let in.
    while (accept()) {
    }
    epoll_event event = {EPOLLIN, {.fd = listener.get()}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, listener.get(), &event);
    Mutex::Autolock lock(mMutex);
    mListener = std::move(listener);
}

void Node::watch(int fd, uint32_t events) {
    epoll_event event = {events, {.fd = fd}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, fd, &event);
}

void Node::addSession(const SessionPtr& session) {
    const int fd = session->control()->fd();
    Mutex::Autolock lock(mMutex);
    mSessions[fd] = session;
    epoll_event event = {Session::kQuietEvents, {.fd = fd}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd, &event);
}

void Node::endSession(const SessionPtr& session) {
    const int fd = session->control()->fd();
    epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, fd, nullptr);
    session->end();
    Mutex::Autolock lock(mMutex);
    mSessions.erase(fd);
}

SessionPtr Node::sessionOf(const Token& token, pid_t peer) {
    Mutex::Autolock lock(mMutex);
    for (const auto& entry : mSessions) {
        if (entry.second->token() == token && entry.second->peer() == peer) return entry.second;
    }
    return nullptr;
}

void Node::run() {
    for (;;) {
        epoll_event events[16];
        const int count = epoll_wait(mEpoll.get(), events, 16, -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            SessionPtr session;
            bool listener;
            bool removals;
            {
                Mutex::Autolock lock(mMutex);
                listener = fd == mListener.get();
                removals = fd == mRemovals.get();
                auto it = mSessions.find(fd);
                if (it != mSessions.end()) session = it->second;
            }
            auto stranger = mStrangers.find(fd);
            if (listener) {
                accept();
            } else if (removals) {
                keepRegistered();
            } else if (fd == mTimer.get()) {
                retry();
            } else if (stranger != mStrangers.end()) {
                ConnectionPtr connection = stranger->second;
                if (!greet(connection)) continue;
                mStrangers.erase(fd);
            } else if (session != nullptr && !session->onControlEvents(events[i].events)) {
                endSession(session);
            }
        }
    }
}

bool Node::accept() {
    int listener;
    {
        Mutex::Autolock lock(mMutex);
        listener = mListener.get();
    }
    base::unique_fd fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (fd.get() < 0) {
        if (errno != EMFILE && errno != ENFILE) return false;
        // Out of descriptors: whoever waits longest in silence makes room, or nobody gets in.
        ALOGE("Cannot accept a connection: %s", strerror(errno));
        if (!mStrangers.empty()) mStrangers.erase(mStrangers.begin());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return false;
    }
    ConnectionPtr connection = Connection::withPeer(std::move(fd));
    if (connection == nullptr) return true;
    if (mStrangers.size() >= kMaxStrangers) {
        ALOGE("Closing a connection to pid %d that says nothing",
              mStrangers.begin()->second->peer());
        mStrangers.erase(mStrangers.begin());
    }
    mStrangers[connection->fd()] = connection;
    epoll_event event = {EPOLLIN, {.fd = connection->fd()}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, connection->fd(), &event);
    return true;
}

bool Node::greet(const ConnectionPtr& connection) {
    Message message;
    switch (connection->tryReceive(&message)) {
        case Received::kWouldBlock:
            return false;
        case Received::kMessage:
            break;
        default:
            return true;
    }
    epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, connection->fd(), nullptr);
    const Token token = {message.header.token[0], message.header.token[1]};
    const pid_t peer = connection->peer();
    SessionPtr session = sessionOf(token, peer);
    const Role role = static_cast<Role>(message.header.code);
    bool valid = message.header.type == MessageType::kHello;
    if (valid && role == Role::kControl && session == nullptr) {
        // Known before it is answered: from then on the other side makes further connections.
        addSession(std::make_shared<Session>(token, connection, nullptr));
        valid = connection->trySend(message) == Received::kMessage;
    } else if (valid && role == Role::kCall && session != nullptr) {
        valid = session->acceptServing(connection);
    } else if (valid && role == Role::kServe && session != nullptr) {
        valid = session->addServing(connection);
    } else {
        valid = false;
    }
    if (!valid) {
        // Who was killed meanwhile has no session any more, and is not to blame.
        ALOGE_IF(!connection->hungUp(),
                 "Closing a connection to pid %d: it does not say validly what it is for", peer);
        connection->shutdown();
    }
    return true;
}

}}}  // namespace android::hardware::host
