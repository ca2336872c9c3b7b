// SPDX-License-Identifier: Apache-2.0
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

#include "CallServers.h"
#include "Registry.h"
#include "Thread.h"
#include "ThreadState.h"

namespace android { namespace hardware { namespace host {

namespace {

// What the control thread waits for beside connections, which go by their serial numbers: never by
// descriptors, since an event may be told of one that has been closed and made anew meanwhile.
enum Source : uint64_t { kListener, kRemovals, kTimer };

Message hello(Role role, const Token& token) {
    Message message = Message::of(MessageType::kHello);
    message.header.code = static_cast<uint32_t>(role);
    message.header.token[0] = token[0];
    message.header.token[1] = token[1];
    return message;
}

bool add(int epoll, int fd, uint32_t events, uint64_t source) {
    epoll_event event = {events, {.u64 = source}};
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
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
    add(mEpoll.get(), mTimer.get(), EPOLLIN, kTimer);
    mStarted = mJanitor.start() && startThread("hidl-control", [this] { run(); });
    return mStarted;
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
    if (!mSocketName.empty() || !start() || !CallServers::self().start()) return mSocketName;
    std::string name;
    base::unique_fd fd = Registry::self().listen(&name);
    if (fd.get() < 0) return "";
    mSocketName = name;

    Mutex::Autolock lock(mMutex);
    mDescriptors.start();  // before the control thread uses it
    mListener = std::move(fd);
    mRemovals.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    Registry::self().watchRemovals(mRemovals.get());
    add(mEpoll.get(), mListener.get(), EPOLLIN, kListener);
    add(mEpoll.get(), mRemovals.get(), EPOLLIN, kRemovals);
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
    if (session != nullptr) {
        session->offerServing();
        session->awaitServing(std::chrono::steady_clock::now() + kPeerLimit);
    }
    return session;
}

SessionPtr Node::greetAt(const std::string& socketName) {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    Token token;
    if (getrandom(token.data(), sizeof(token), 0) != sizeof(token)) return nullptr;
    const auto end = Clock::now() + kPeerLimit;
    const auto left = [&] { return std::chrono::duration_cast<milliseconds>(end - Clock::now()); };
    ConnectionPtr control;
    for (milliseconds pause(10);; pause *= 2) {
        if (left().count() <= 0) return nullptr;
        control = Registry::self().connect(socketName, left());
        if (control == nullptr) return nullptr;
        control->limitReceive(std::max(left(), milliseconds(1)));
        Message answer;
        const bool answered = control->send(hello(Role::kControl, token)) &&
                              control->receiveInTime(&answer) == Received::kMessage;
        if (answered && answer.header.type == MessageType::kHello) break;
        if (answered && answer.header.status != WOULD_BLOCK) {
            ALOGE("pid %d takes no further process", control->peer());
            return nullptr;
        }
        // It was closed as one that says nothing, when many came at once; or the process is going.
        std::this_thread::sleep_for(std::min(pause, left()));
    }
    const pid_t peer = control->peer();
    auto session = std::make_shared<Session>(
            token, control,
            [socketName, token, peer](Role role, milliseconds limit) -> ConnectionPtr {
                ConnectionPtr connection = Registry::self().connect(socketName, limit);
                if (connection == nullptr || connection->peer() != peer ||
                    !connection->send(hello(role, token))) {
                    return nullptr;
                }
                return connection;
            });
    // Without it nobody would hear of its end.
    return addSession(session, control) ? session : nullptr;
}

std::vector<SessionPtr> Node::sessions() {
    std::vector<SessionPtr> sessions;
    Mutex::Autolock lock(mMutex);
    for (const auto& entry : mSessions) sessions.push_back(entry.second);
    return sessions;
}

void Node::offerServing() {
    const std::vector<SessionPtr> all = sessions();
    for (const SessionPtr& session : all) session->offerServing();
    const auto deadline = std::chrono::steady_clock::now() + kPeerLimit;
    for (const SessionPtr& session : all) session->awaitServing(deadline);
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
    if (CallServers::self().sweep()) retrySoon();
    for (const SessionPtr& session : sessions()) session->offerServing();
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
    add(mEpoll.get(), listener.get(), EPOLLIN, kListener);
    Mutex::Autolock lock(mMutex);
    mListener = std::move(listener);
}

void Node::watch(const Connection& control, uint32_t events) {
    epoll_event event = {events, {.u64 = control.serial()}};
    epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, control.fd(), &event);
}

bool Node::addSession(const SessionPtr& session, const ConnectionPtr& control) {
    Mutex::Autolock lock(mMutex);
    if (!add(mEpoll.get(), control->fd(), Session::kQuietEvents, session->serial())) return false;
    mSessions[session->serial()] = session;
    mSessionsByPeer[{session->peer(), session->token()}] = session;
    return true;
}

void Node::endSession(const SessionPtr& session) {
    session->end();
    Mutex::Autolock lock(mMutex);
    mSessions.erase(session->serial());
    mSessionsByPeer.erase({session->peer(), session->token()});
}

SessionPtr Node::sessionOf(const Token& token, pid_t peer) {
    Mutex::Autolock lock(mMutex);
    auto it = mSessionsByPeer.find({peer, token});
    return it == mSessionsByPeer.end() ? nullptr : it->second;
}

std::vector<SessionPtr> Node::sessionsOf(pid_t peer) {
    std::vector<SessionPtr> sessions;
    Mutex::Autolock lock(mMutex);
    for (auto it = mSessionsByPeer.lower_bound({peer, Token{}});
         it != mSessionsByPeer.end() && it->first.first == peer; ++it) {
        sessions.push_back(it->second);
    }
    return sessions;
}

size_t Node::connectionsOf(pid_t peer) {
    size_t count = 0;
    for (const SessionPtr& session : sessionsOf(peer)) count += session->connections();
    return count;
}

bool Node::haveRoomForCalls() {
    {
        Mutex::Autolock lock(mMutex);
        if (mDescriptors.haveRoomBeside(mSessions.size())) return true;
    }
    const std::vector<SessionPtr> all = sessions();
    const auto owed = std::count_if(all.begin(), all.end(), [](const SessionPtr& session) {
        return !session->dialled() && !session->canCall();
    });
    return mDescriptors.haveRoomBeside(static_cast<size_t>(owed));
}

void Node::run() {
    for (;;) {
        epoll_event events[16];
        const int count = epoll_wait(mEpoll.get(), events, 16, -1);
        for (int i = 0; i < count; ++i) {
            const uint64_t source = events[i].data.u64;
            if (source == kListener) {
                accept();
            } else if (source == kRemovals) {
                keepRegistered();
            } else if (source == kTimer) {
                retry();
            } else if (auto it = mStrangers.find(source); it != mStrangers.end()) {
                if (greet(it->second)) mStrangers.erase(source);
            } else {
                SessionPtr session;
                {
                    Mutex::Autolock lock(mMutex);
                    auto known = mSessions.find(source);
                    if (known != mSessions.end()) session = known->second;
                }
                if (session != nullptr && !session->onControlEvents(events[i].events)) {
                    endSession(session);
                }
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
    bool full;
    base::unique_fd fd = mDescriptors.accept(listener, &full);
    if (fd.get() < 0) {
        // Not even to refuse it: the system has none left.
        if (full) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        mDescriptors.restock();
        return false;
    }
    ConnectionPtr connection = Connection::withPeer(std::move(fd));
    if (connection == nullptr) return true;
    if (full) {
        CallServers::self().makeRoom();
        refuseFull(connection, NO_MEMORY);
        connection.reset();
        mDescriptors.restock();
        return true;
    }
    if (mStrangers.size() >= mDescriptors.maxStrangers()) {
        const ConnectionPtr oldest = mStrangers.begin()->second;
        mStrangers.erase(mStrangers.begin());
        // It may have spoken by now.
        if (!greet(oldest)) {
            ALOGE_IF(mFullLog.allows(), "Closing a connection to pid %d that says nothing",
                     oldest->peer());
            oldest->retire(false, WOULD_BLOCK);
        }
    }
    if (greet(connection)) return true;
    if (add(mEpoll.get(), connection->fd(), EPOLLIN, connection->serial())) {
        mStrangers[connection->serial()] = connection;
    }
    return true;
}

void Node::refuseFull(const ConnectionPtr& connection, status_t status) {
    ALOGE_IF(mFullLog.allows(), "No descriptor left for a connection to pid %d",
             connection->peer());
    connection->retire(true, status);
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
    const Role role = static_cast<Role>(message.header.code);
    if (message.header.type != MessageType::kHello || !admit(connection, role, message)) {
        // Who was killed meanwhile has no session any more, and is not to blame.
        ALOGE_IF(!connection->hungUp(),
                 "Closing a connection to pid %d: it does not say validly what it is for",
                 connection->peer());
        connection->shutdown();
    }
    return true;
}

bool Node::admit(const ConnectionPtr& connection, Role role, const Message& hello) {
    const Token token = {hello.header.token[0], hello.header.token[1]};
    const SessionPtr session = sessionOf(token, connection->peer());
    if (role == Role::kControl) return session == nullptr && admitSession(connection, hello);
    if (session == nullptr || session->dialled()) return false;
    if (role != Role::kCall && role != Role::kServe) return false;
    const bool calls = role == Role::kCall;
    // Each process can be called in any case.
    const bool owed = !calls && !session->canCall();
    if (!owed && !haveRoomForCalls()) {
        CallServers::self().makeRoom();
        refuseFull(connection, WOULD_BLOCK);
    } else if (connectionsOf(connection->peer()) >= mDescriptors.maxOfOne() ||
               !(calls ? session->acceptServing(connection) : session->addServing(connection))) {
        connection->retire(true, WOULD_BLOCK);
    }
    return true;
}

bool Node::admitSession(const ConnectionPtr& control, const Message& hello) {
    size_t all;
    {
        Mutex::Autolock lock(mMutex);
        all = mSessions.size();
    }
    if (sessionsOf(control->peer()).size() >= mDescriptors.maxOfOne() ||
        !mDescriptors.haveRoomForSession(all)) {
        refuseFull(control, NO_MEMORY);
        return true;
    }
    if (!haveRoomForCalls()) {
        // For the moment: it may try again.
        CallServers::self().makeRoom();
        refuseFull(control, WOULD_BLOCK);
        return true;
    }
    // Known before it is answered: from then on the other side makes further connections.
    const Token token = {hello.header.token[0], hello.header.token[1]};
    const auto session = std::make_shared<Session>(token, control, nullptr);
    if (addSession(session, control) && control->trySend(hello) == Received::kMessage) return true;
    endSession(session);
    return false;
}

}}}  // namespace android::hardware::host
