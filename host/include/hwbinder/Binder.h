// SPDX-License-Identifier: Apache-2.0
// Base of every stub.
#pragma once

#include <sched.h>

#include <hwbinder/IBinder.h>

#ifndef SCHED_NORMAL
#define SCHED_NORMAL SCHED_OTHER  // as Android's libc calls it
#endif

namespace android { namespace hardware {

class BHwBinder : public IBinder {
  public:
    [[gnu::hot]] status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                                   uint32_t flags = 0, TransactCallback callback = nullptr) final;
    status_t linkToDeath(const sp<DeathRecipient>& recipient) final;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient) final;
    BHwBinder* localBinder() final { return this; }

  protected:
    ~BHwBinder() override = default;
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0, TransactCallback callback = nullptr) = 0;

    // Scheduling and security labels have no meaning on the host; generated stubs set them.
    void setRequestingSid(bool) {}
    int mSchedPolicy = SCHED_NORMAL;
    int mSchedPriority = 0;
};

}}  // namespace android::hardware
