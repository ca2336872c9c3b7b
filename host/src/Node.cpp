#define LOG_TAG "hidl"

#include "Node.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include <log/log.h>

#include "Registry.h"
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

Node::Node() : mEpoll(epoll_create1(EPOLL_CLOEXEC)) {
    std::thread([this] { run(); }).detach();
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
    Mutex::Autolock dialLock(mDialMutex);
    if (!mSocketName.empty()) return mSocketName;
    std::string name;
    base::unique_fd fd = Registry::self().listen(&name);
    if (fd.get() < 0) return "";
    fcntl(fd.get(), F_SETFL, O_NONBLOCK);
    mSocketName = name;

    Mutex::Autolock lock(mMutex);
    mListener = std::move(fd);
    epoll_event event = {EPOLLIN, {.fd = mListener.get()}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mListener.get(), &event);
    return name;
}

SessionPtr Node::dial(const std::string& socketName) {
    Mutex::Autolock dialLock(mDialMutex);
    // Those that have ended go, with their descriptors: a client outlives many services.
    for (auto it = mDialled.begin(); it != mDialled.end();) {
        it = it->second->ended() ? mDialled.erase(it) : std::next(it);
    }
    auto it = mDialled.find(socketName);
    if (it != mDialled.end()) return it->second;

    Token token;
    if (getrandom(token.data(), sizeof(token), 0) != sizeof(token)) return nullptr;
    ConnectionPtr control = Registry::self().connect(socketName);
    Message answer;
    if (control == nullptr || !control->send(hello(Role::kControl, token)) ||
        control->receive(&answer) != Received::kMessage ||
        answer.header.type != MessageType::kHello) {
        return nullptr;
    }
    const pid_t peer = control->peer();
    auto session = std::make_shared<Session>(
            token, std::move(control), [socketName, token, peer](Role role) -> ConnectionPtr {
                ConnectionPtr connection = Registry::self().connect(socketName);
                if (connection == nullptr || connection->peer() != peer ||
                    !connection->send(hello(role, token))) {
                    return nullptr;
                }
                return connection;
            });
    mDialled[socketName] = session;
    addSession(session);
    session->offerServing(poolSize());
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
    pthread_setname_np(pthread_self(), "hidl-control");
    for (;;) {
        epoll_event events[16];
        const int count = epoll_wait(mEpoll.get(), events, 16, -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            SessionPtr session;
            bool listener;
            {
                Mutex::Autolock lock(mMutex);
                listener = fd == mListener.get();
                auto it = mSessions.find(fd);
                if (it != mSessions.end()) session = it->second;
            }
            auto stranger = mStrangers.find(fd);
            if (listener) {
                accept();
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

void Node::accept() {
    int listener;
    {
        Mutex::Autolock lock(mMutex);
        listener = mListener.get();
    }
    base::unique_fd fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (fd.get() < 0) {
        if (errno != EMFILE && errno != ENFILE) return;
        // Out of descriptors: whoever waits longest in silence makes room, or nobody gets in.
        ALOGE("Cannot accept a connection: %s", strerror(errno));
        if (!mStrangers.empty()) mStrangers.erase(mStrangers.begin());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return;
    }
    ConnectionPtr connection = Connection::withPeer(std::move(fd));
    if (connection == nullptr) return;
    if (mStrangers.size() >= kMaxStrangers) {
        ALOGE("Closing a connection to pid %d that says nothing",
              mStrangers.begin()->second->peer());
        mStrangers.erase(mStrangers.begin());
    }
    mStrangers[connection->fd()] = connection;
    epoll_event event = {EPOLLIN, {.fd = connection->fd()}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, connection->fd(), &event);
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
        ALOGE("Closing a connection to pid %d: it does not say validly what it is for", peer);
        connection->shutdown();
    }
    return true;
}

}}}  // namespace android::hardware::host
