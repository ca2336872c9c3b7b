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
    BpHwBinder(std::shared_ptr<host::Session> session, uint64_t id, bool dead);

    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0,
                      TransactCallback callback = nullptr) override;
    status_t linkToDeath(const sp<DeathRecipient>& recipient) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient) override;
    BpHwBinder* remoteBinder() override { return this; }

    // Tells every linked recipient, once.
    void sendObituary();

    const host::Session* session() const { return mSession.get(); }
    uint64_t id() const { return mId; }

    // How often the object has been sent here; guarded by the session.
    uint32_t received = 0;

  private:
    ~BpHwBinder() override;

    const std::shared_ptr<host::Session> mSession;
    const uint64_t mId;

    Mutex mMutex;
    bool mDead GUARDED_BY(mMutex);
    std::vector<wp<DeathRecipient>> mRecipients GUARDED_BY(mMutex);
};

}}  // namespace android::hardware
