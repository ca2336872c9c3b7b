// SPDX-License-Identifier: Apache-2.0
#include "CallServers.h"

#include <algorithm>

#include "Node.h"
#include "Session.h"
#include "Thread.h"

namespace android { namespace hardware { namespace host {

namespace {

std::atomic<uint64_t> gRests{0};

}  // namespace

ServedConnection::ServedConnection(ConnectionPtr connection, const Session* session)
    : mConnection(std::move(connection)), mSession(session) {
    rest();
}

void ServedConnection::rest() {
    mRestingSince.store(gRests.fetch_add(1, std::memory_order_relaxed), std::memory_order_relaxed);
    mState.store(kResting, std::memory_order_release);
}

bool ServedConnection::wake() {
    State resting = kResting;
    if (!mState.compare_exchange_strong(resting, kInCall)) return false;
    mRestingSince.store(UINT64_MAX, std::memory_order_relaxed);
    return true;
}

bool ServedConnection::letGo() {
    State resting = kResting;
    if (!mState.compare_exchange_strong(resting, kGone)) return false;
    mRestingSince.store(UINT64_MAX, std::memory_order_relaxed);
    mConnection->stopReceiving();
    return true;
}

CallServers& CallServers::self() {
    static auto* self = new CallServers;
    return *self;
}

bool CallServers::start() {
    Mutex::Autolock lock(mMutex);
    if (!mStarted) mStarted = startThread("hidl-pool", [this] { run({}, true); });
    return mStarted;
}

void CallServers::serve(const std::shared_ptr<Session>& session, const ConnectionPtr& connection) {
    Waiting waiting = {session, connection, Clock::now()};
    // Handed over whole: the thread may go on to serve others, and must keep nothing of this one.
    const auto body = [this, waiting]() mutable { run(std::move(waiting), false); };
    if (startThread("hidl-pool", body)) return;
    {
        Mutex::Autolock lock(mMutex);
        mLine.push_back(waiting);
        mLineLength = mLine.size();
        mCame.notify_one();
    }
    Node::self().retrySoon();
    makeRoom();
}

void CallServers::run(Waiting first, bool stays) {
    Waiting now = first.session != nullptr ? std::move(first) : next(stays);
    for (; now.session != nullptr; now = next(stays)) {
        ServedConnection served(now.connection, now.session.get());
        std::list<ServedConnection*>::iterator place;
        {
            Mutex::Autolock lock(mMutex);
            place = mServed.insert(mServed.end(), &served);
        }
        Node::self().retrySoon();
        now.session->serveCalls(&served);
        {
            Mutex::Autolock lock(mMutex);
            mServed.erase(place);
        }
        now = {};
    }
}

size_t CallServers::serving(const Session* session) {
    Mutex::Autolock lock(mMutex);
    return static_cast<size_t>(std::count_if(
            mServed.begin(), mServed.end(),
            [session](const ServedConnection* served) { return served->session() == session; }));
}

CallServers::Waiting CallServers::next(bool stays) {
    Mutex::Autolock lock(mMutex);
    while (stays && mLine.empty()) mCame.wait(mMutex);
    if (mLine.empty()) return {};
    Waiting waiting = std::move(mLine.front());
    mLine.pop_front();
    mLineLength = mLine.size();
    return waiting;
}

bool CallServers::sweep() {
    std::deque<Waiting> late;
    const auto limit = Clock::now() - kPeerLimit;
    Mutex::Autolock lock(mMutex);
    for (ServedConnection* served : mServed) {
        if (served->restingSince() < mLastSweep) served->letGo();
    }
    mLastSweep = gRests;
    while (!mLine.empty() && mLine.front().since <= limit) {
        mLine.front().connection->retire(true, WOULD_BLOCK);
        late.push_back(std::move(mLine.front()));
        mLine.pop_front();
    }
    mLineLength = mLine.size();
    return !mLine.empty() || !mServed.empty();
}

void CallServers::makeRoom() {
    Mutex::Autolock lock(mMutex);
    // One that is just being called cannot be let go: then the next.
    for (uint64_t from = 0;;) {
        ServedConnection* longest = nullptr;
        uint64_t since = UINT64_MAX;
        for (ServedConnection* served : mServed) {
            const uint64_t resting = served->restingSince();
            if (resting < from || resting >= since) continue;
            longest = served;
            since = resting;
        }
        if (longest == nullptr) return;
        if (longest->letGo()) return;
        from = since + 1;
    }
}

}}}  // namespace android::hardware::host
