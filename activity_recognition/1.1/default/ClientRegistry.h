// Clients of one interface version of one side: registration, death, broadcast. Both versions of
// both sides do this alike; where they differ, they say so in a Version (see RegisterClient).
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <utility>
#include <vector>

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <log/log.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include "Caller.h"
#include "ClientRecords.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {
using ::android::sp;
using ::android::wp;
using ::android::hardware::Return;
using ::android::hidl::base::V1_0::IBase;

// Callback to the process id that registered it, ordered by the callbacks' addresses.
template <typename Callback>
using ClientTable = ::android::KeyedVector<sp<Callback>, unsigned long>;

// Hands death notices to the object that linked it. It holds that object and is held by it:
// intended, a working object lives as long as the process once a client has registered.
template <typename Owner>
class ClientDeathRecipient : public ::android::hardware::hidl_death_recipient {
  public:
    explicit ClientDeathRecipient(const sp<Owner>& owner) : mOwner(owner) {}

    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        mOwner->HandleHidlDeath(cookie, who);
    }

  private:
    const sp<Owner> mOwner;
};

// Position of the first client that is this callback or of this process, or -1.
template <typename Callback>
ssize_t FindClient(const ClientTable<Callback>& clients, const sp<Callback>& callback,
                   unsigned long pid) {
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients.keyAt(i) == callback || clients.valueAt(i) == pid) return i;
    }
    return -1;
}

// Position of the first client that is the very object of a death notice, or -1. Identity is that
// of the weak reference, which outlives the object.
template <typename Callback>
ssize_t FindDeadClient(const ClientTable<Callback>& clients, const wp<IBase>& who) {
    const bool nobody = who.unsafe_get() == nullptr;
    for (size_t i = 0; i < clients.size(); ++i) {
        const sp<Callback>& callback = clients.keyAt(i);
        if (callback == nullptr ? nobody : !nobody && who.get_refs() == callback->getWeakRefs()) {
            return i;
        }
    }
    return -1;
}

// Process ids with their positions in a client table, ascending: finds the clients of a process
// without walking the others.
using ClientPositions = std::vector<std::pair<unsigned long, size_t>>;

template <typename Callback>
ClientPositions PositionsByPid(const ClientTable<Callback>& clients) {
    ClientPositions positions;
    for (size_t i = 0; i < clients.size(); ++i) positions.emplace_back(clients.valueAt(i), i);
    std::sort(positions.begin(), positions.end());
    return positions;
}

// Whether there was such a link is nobody's concern.
inline void Unlink(const sp<IBase>& object,
                   const sp<::android::hardware::hidl_death_recipient>& recipient) {
    (void)object->unlinkToDeath(recipient).isOk();
}

// Registers a callback under its caller's process id and links it to its death. Every outcome
// looks the same to the client; the log tells them apart. Version states:
//   Owner, Callback, kTag        whose clients they are, and the log tag
//   kPidWithoutCaller            the process id when the thread has no binder state
//   ListMutex(), Clients()       the table and its lock
//   Recipient(owner)             what to link, or NULL when memory is short
//   Admit(owner, known, callback, recipient, pid)
//                                whether to go on; known is FindClient's answer
//   Log...                       what it says
template <typename Version>
void RegisterClient(typename Version::Owner* owner,
                    const sp<typename Version::Callback>& callback) {
    if (callback == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, Version::kTag, "invalid Callback");
        return;
    }
    const auto recipient = Version::Recipient(owner);
    if (recipient == nullptr) {
        Version::LogNoRecipient();
        return;
    }
    unsigned long pid = Version::kPidWithoutCaller;
    int32_t callingPid;
    if (ReadCallingPid(&callingPid)) {
        pid = ClientKey(callingPid);
    } else {
        Version::LogNoCaller();
    }

    ::android::Mutex::Autolock lock(Version::ListMutex());
    auto& clients = Version::Clients();
    const ssize_t known = FindClient(clients, callback, pid);
    if (!Version::Admit(owner, known, callback, recipient, pid)) {
        Version::LogAlreadyRegistered(pid);
        return;
    }
    const Return<bool> linked = callback->linkToDeath(recipient, pid);
    if (!linked.isOk()) {
        Version::LogLinkFailed(linked.description().c_str());
    } else if (!linked) {
        Version::LogLinkRefused();
    } else {
        clients.add(callback, pid);
        Version::LogLinked(pid, static_cast<int>(clients.size()));
    }
}

// Sends every client its own copy of the whole list, in the table's order. Delivery's Version
// states: Send(callback, records), LogNullCallback(pid), LogFailed(pid).
template <typename Version, typename Callback, typename Record>
void Broadcast(const ClientTable<Callback>& clients, const std::vector<Record>& records) {
    for (size_t i = 0; i < clients.size(); ++i) {
        const sp<Callback> callback = clients.keyAt(i);
        if (callback == nullptr) {
            Version::LogNullCallback(clients.valueAt(i));
            continue;
        }
        const Return<void> sent = Version::Send(callback, CopyForClient(records));
        if (!sent.isOk()) Version::LogFailed(clients.valueAt(i));
    }
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
