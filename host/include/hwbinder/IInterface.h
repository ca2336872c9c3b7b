// SPDX-License-Identifier: Apache-2.0
// Base of every proxy.
#pragma once

#include <hwbinder/IBinder.h>

namespace android { namespace hardware {

class IInterface : public virtual RefBase {
  public:
    static IBinder* asBinder(const IInterface* interface) { return interface->onAsBinder(); }

    virtual IBinder* onAsBinder() const = 0;

  protected:
    ~IInterface() override = default;
};

template <typename INTERFACE>
class BpInterface : public INTERFACE, public IInterface {
  public:
    explicit BpInterface(const sp<IBinder>& remote) : mRemote(remote) {}

    IBinder* onAsBinder() const override { return mRemote.get(); }

  protected:
    IBinder* remote() const { return mRemote.get(); }

  private:
    const sp<IBinder> mRemote;
};

}}  // namespace android::hardware
