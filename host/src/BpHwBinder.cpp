// SPDX-License-Identifier: Apache-2.0
#include "BpHwBinder.h"

#include <algorithm>

#include "Session.h"
#include "ThreadState.h"

namespace android { namespace hardware {

BpHwBinder::BpHwBinder(std::shared_ptr<host::Session> session, uint64_t id)
    : mSession(std::move(session)), mId(id) {}

BpHwBinder::~BpHwBinder() {
    mSession->proxyGone(this);
}

status_t BpHwBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags,
                              TransactCallback) {
    return flags & FLAG_ONEWAY ? mSession->callOneway(mId, code, data)
                               : mSession->call(mId, code, data, reply);
}

status_t BpHwBinder::linkToDeath(const sp<DeathRecipient>& recipient) {
    {
        Mutex::Autolock lock(mMutex);
        if (mTold) return DEAD_OBJECT;
        mRecipients.push_back(recipient);
    }
    // One that ends after this look finds the link.
    if (mSession->ended()) postObituary();
    return OK;
}

status_t BpHwBinder::unlinkToDeath(const wp<DeathRecipient>& recipient) {
    const sp<DeathRecipient> going = recipient.promote();
    Mutex::Autolock lock(mMutex);
    if (mTold) return DEAD_OBJECT;
    auto it = std::find(mRecipients.begin(), mRecipients.end(), recipient);
    if (it == mRecipients.end()) return NAME_NOT_FOUND;
    // Of equal links the first must go. Newer interface compilers' code gives up the last: each
    // hands on what it stands for, and its place.
    for (auto earlier = it; going != nullptr && earlier != mRecipients.begin();) {
        --earlier;
        const sp<DeathRecipient> link = earlier->promote();
        if (link == nullptr || !link->swapIfEqual(going.get())) continue;
        *it = link;
        it = earlier;
    }
    mRecipients.erase(it);
    return OK;
}

void BpHwBinder::postObituary() {
    {
        Mutex::Autolock lock(mMutex);
        if (mTold || mRecipients.empty()) return;
    }
    host::runOnPool([self = sp<BpHwBinder>(this)] { self->sendObituary(); });
}

void BpHwBinder::sendObituary() {
    std::vector<wp<DeathRecipient>> recipients;
    {
        Mutex::Autolock lock(mMutex);
        if (mRecipients.empty()) return;
        mTold = true;
        recipients.swap(mRecipients);
    }
    for (const wp<DeathRecipient>& weak : recipients) {
        sp<DeathRecipient> recipient = weak.promote();
        if (recipient != nullptr) recipient->binderDied(this);
    }
}

}}  // namespace android::hardware
