#include "BpHwBinder.h"

#include <algorithm>

#include "Session.h"

namespace android { namespace hardware {

BpHwBinder::BpHwBinder(std::shared_ptr<host::Session> session, uint64_t id, bool dead)
    : mSession(std::move(session)), mId(id), mDead(dead) {}

BpHwBinder::~BpHwBinder() {
    mSession->proxyGone(this);
}

status_t BpHwBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags,
                              TransactCallback) {
    return flags & FLAG_ONEWAY ? mSession->callOneway(mId, code, data)
                               : mSession->call(mId, code, data, reply);
}

status_t BpHwBinder::linkToDeath(const sp<DeathRecipient>& recipient) {
    Mutex::Autolock lock(mMutex);
    if (mDead) return DEAD_OBJECT;
    mRecipients.push_back(recipient);
    return OK;
}

status_t BpHwBinder::unlinkToDeath(const wp<DeathRecipient>& recipient) {
    Mutex::Autolock lock(mMutex);
    if (mDead) return DEAD_OBJECT;
    auto it = std::find(mRecipients.begin(), mRecipients.end(), recipient);
    if (it == mRecipients.end()) return NAME_NOT_FOUND;
    mRecipients.erase(it);
    return OK;
}

void BpHwBinder::sendObituary() {
    std::vector<wp<DeathRecipient>> recipients;
    {
        Mutex::Autolock lock(mMutex);
        mDead = true;
        recipients.swap(mRecipients);
    }
    for (const wp<DeathRecipient>& weak : recipients) {
        sp<DeathRecipient> recipient = weak.promote();
        if (recipient != nullptr) recipient->binderDied(this);
    }
}

}}  // namespace android::hardware
