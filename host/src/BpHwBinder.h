// SPDX-License-Identifier: Apache-2.0
// A remote object, as this process knows it: one per object for as long as anybody holds it.
#pragma once

#include <stdint.h>

#include <memory>
#include <vector>

#include <hwbinder/IBinder.h>
#include <utils/Mutex.h>

namespace android { namespace hardware {

namespace host {
class Session;
}  // namespace host

class BpHwBinder : public IBinder {
  public:
    BpHwBinder(std::shared_ptr<host::Session> session, uint64_t id);

    [[gnu::hot]] status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                                   uint32_t flags = 0,
                                   TransactCallback callback = nullptr) override;
    status_t linkToDeath(const sp<DeathRecipient>& recipient) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient) override;
    BpHwBinder* remoteBinder() override { return this; }

    // The session has ended: tells every linked recipient, once, on a thread of the pool. A proxy
    // that nobody has linked learns of it with its first link.
    void postObituary() EXCLUDES(mMutex);

    const host::Session* session() const { return mSession.get(); }
    uint64_t id() const { return mId; }

    // How often the object has been sent here; guarded by the session.
    uint64_t received = 0;

  private:
    ~BpHwBinder() override;
    void sendObituary() EXCLUDES(mMutex);

    const std::shared_ptr<host::Session> mSession;
    const uint64_t mId;

    Mutex mMutex;
    bool mTold GUARDED_BY(mMutex) = false;
    std::vector<wp<DeathRecipient>> mRecipients GUARDED_BY(mMutex);
};

}}  // namespace android::hardware
