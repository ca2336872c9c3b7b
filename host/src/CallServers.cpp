#include "CallServers.h"

#include <algorithm>

#include "Session.h"
#include "Thread.h"

namespace android { namespace hardware { namespace host {

namespace {

std::atomic<uint64_t> gRests{0};

}  // namespace

void ServedConnection::rest() {
    mRestingSince = ++gRests;
    mState = kResting;
}

bool ServedConnection::wake() {
    State resting = kResting;
    if (!mState.compare_exchange_strong(resting, kInCall)) return false;
    mRestingSince = UINT64_MAX;
    return true;
}

bool ServedConnection::letGo() {
    State resting = kResting;
    return mState.compare_exchange_strong(resting, kGone);
}

CallServers& CallServers::self() {
    static auto* self = new CallServers;
    return *self;
}

bool CallServers::serve(const std::shared_ptr<Session>& session, const ConnectionPtr& connection) {
    return startThread("hidl-pool", [this, session, connection] {
        ServedConnection served(connection);
        std::list<ServedConnection*>::iterator place;
        {
            Mutex::Autolock lock(mMutex);
            served.rest();
            place = mServed.insert(mServed.end(), &served);
        }
        session->serveCalls(&served);
        Mutex::Autolock lock(mMutex);
        mServed.erase(place);
    });
}

void CallServers::makeRoom() {
    Mutex::Autolock lock(mMutex);
    auto longest = std::min_element(mServed.begin(), mServed.end(),
                                    [](const ServedConnection* a, const ServedConnection* b) {
                                        return a->restingSince() < b->restingSince();
                                    });
    if (longest != mServed.end() && (*longest)->letGo()) (*longest)->connection()->stopReceiving();
}

}}}  // namespace android::hardware::host
