// SPDX-License-Identifier: Apache-2.0
// An object that can be called across processes, local or remote.
#pragma once

#include <stdint.h>

#include <functional>

#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android { namespace hardware {

class BHwBinder;
class BpHwBinder;
class Parcel;

class IBinder : public virtual RefBase {
  public:
    enum { FLAG_ONEWAY = 0x00000001 };

    // Hands a stub's reply back before its result arguments go away.
    using TransactCallback = std::function<void(Parcel&)>;

    class DeathRecipient : public virtual RefBase {
      public:
        virtual void binderDied(const wp<IBinder>& who) = 0;
        // Host only: exchanges what two equal links of a proxy differ in; false for unequal ones.
        virtual bool swapIfEqual(DeathRecipient*) { return false; }
    };

    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0,
                              TransactCallback callback = nullptr) = 0;

    // The recipient is kept weakly and told once, on a thread of the pool: not before that is
    // started, which generated proxies do when they link. An object whose process is dead takes the
    // link too, until a recipient has been told: then DEAD_OBJECT. INVALID_OPERATION for a local
    // object.
    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient) = 0;
    // NAME_NOT_FOUND when it is not linked, DEAD_OBJECT when it has been told.
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient) = 0;

    virtual BHwBinder* localBinder() { return nullptr; }
    virtual BpHwBinder* remoteBinder() { return nullptr; }

  protected:
    ~IBinder() override = default;
};

}}  // namespace android::hardware
