// SPDX-License-Identifier: Apache-2.0
// Who is calling; registration, death and broadcast for the client table of one interface version
// of one side. Versions and sides differ in the arguments only.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <algorithm>
#include <memory>
#include <new>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <hwbinder/IPCThreadState.h>
#include <log/log.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include "Conversions.h"
#include "Counters.h"
#include "InFlight.h"
#include "LockInTime.h"
#include "LogTexts.h"

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

using ::android::Mutex;
using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hidl::base::V1_0::IBase;

// Reads the process id of the caller that this thread serves; outside any call that is this process
// itself. False, with *pid as it was, when the thread has no binder state.
inline bool ReadCallingPid(int32_t* pid) {
    const auto* state = ::android::hardware::IPCThreadState::self();
    if (state == nullptr) return false;
    *pid = state->getCallingPid();
    return true;
}

// As above; 0 without binder state.
inline int32_t CallingPidOrZero() {
    int32_t pid = 0;
    ReadCallingPid(&pid);
    return pid;
}

// Results of the methods that answer one.
constexpr int32_t kSuccess = 0;
constexpr int32_t kFailure = 1;

// The key of a client in every table, and its death cookie: sign-extended.
inline uint64_t ClientKey(int32_t pid) {
    return static_cast<uint64_t>(static_cast<int64_t>(pid));
}

// What a client table holds of a client. Plain, so that the table may move it as bytes.
struct ClientEntry {
    unsigned long pid;
    ClientCalls* calls;  // NULL without a callback
};

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation

namespace android {
ANDROID_TRIVIAL_MOVE_TRAIT(
        ::vendor::zaltho::hardware::activity_recognition::V1_1::implementation::ClientEntry)
}  // namespace android

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Callback to the process id that registered it, ordered by the callbacks' addresses; also finds a
// process's callbacks without walking the others. One with a NULL callback is found by walking
// only.
template <typename Callback>
class ClientTable {
  public:
    struct Client {
        Callback* callback;
        std::unique_ptr<ClientCalls> calls;
    };
    using Clients = std::vector<Client>;

    size_t size() const { return mClients.size(); }
    bool isEmpty() const { return mClients.isEmpty(); }
    const sp<Callback>& keyAt(size_t index) const { return mClients.keyAt(index); }
    unsigned long valueAt(size_t index) const { return mClients.valueAt(index).pid; }
    ClientCalls* callsAt(size_t index) const { return mClients.valueAt(index).calls; }
    // A callback that stands already becomes this process's.
    void add(const sp<Callback>& callback, unsigned long pid) {
        const ssize_t known = mClients.indexOfKey(callback);
        if (known >= 0) removeItemsAt(known);
        std::unique_ptr<ClientCalls> calls;
        if (callback != nullptr) calls.reset(new ClientCalls{NowNs(), 0, 0, 0, 0, 0, 0});
        if (mClients.add(callback, {pid, calls.get()}) < 0 || callback == nullptr) return;
        Clients& clients = mOfProcess[pid];
        clients.insert(find(clients, callback.get()), {callback.get(), std::move(calls)});
    }
    void removeItemsAt(size_t index) {
        const auto of = mOfProcess.find(valueAt(index));
        if (keyAt(index) != nullptr) {
            of->second.erase(find(of->second, keyAt(index).get()));
            if (of->second.empty()) mOfProcess.erase(of);
        }
        mClients.removeItemsAt(index);
    }
    void clear() {
        mClients.clear();
        mOfProcess.clear();
    }
    // In the table's order. Valid until the table changes.
    const Clients& clientsOf(unsigned long pid) const {
        static const Clients kNone;
        const auto of = mOfProcess.find(pid);
        return of == mOfProcess.end() ? kNone : of->second;
    }

  private:
    // Where it stands, or belongs.
    static typename Clients::iterator find(Clients& clients, Callback* callback) {
        return std::lower_bound(
                clients.begin(), clients.end(), callback,
                [](const Client& client, Callback* other) { return client.callback < other; });
    }

    ::android::KeyedVector<sp<Callback>, ClientEntry> mClients;
    std::unordered_map<unsigned long, Clients> mOfProcess;
};

// Hands death notices to the object that linked it. It holds that object and is held by it, and
// nobody breaks the circle: a working object lives as long as the process once a client has
// registered.
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

// The one recipient of registrations that share it. Owner: whom it tells of deaths.
template <typename Owner>
class SharedRecipient {
  public:
    using Recipient = ClientDeathRecipient<Owner>;

    explicit SharedRecipient(Owner* owner) : mOwner(owner) {}

    // Made for the first registration. NULL when memory is short; the next one tries again.
    sp<Recipient> getOrMake() EXCLUDES(mLock) {
        Mutex::Autolock lock(mLock);
        if (mRecipient == nullptr) mRecipient = new (std::nothrow) Recipient(mOwner);
        return mRecipient;
    }
    // NULL before the first registration.
    sp<Recipient> get() const EXCLUDES(mLock) {
        Mutex::Autolock lock(mLock);
        return mRecipient;
    }
    // Whether there is one; false when the lock cannot be had in time.
    bool look(bool* made) const EXCLUDES(mLock) {
        if (!LockInTime(mLock)) return false;
        *made = mRecipient != nullptr;
        mLock.unlock();
        return true;
    }

  private:
    friend struct ClientTableTestPeer;

    Owner* const mOwner;  // the object that this is a member of
    mutable Mutex mLock;  // leaf lock
    sp<Recipient> mRecipient GUARDED_BY(mLock);
};

// The recipients of registrations that have one each, with the process that registered. A process's
// first one is that of the lowest address.
template <typename Owner>
class RecipientTable {
  public:
    using Recipient = ClientDeathRecipient<Owner>;

    void add(const sp<Recipient>& recipient, unsigned long pid) EXCLUDES(mLock) {
        Mutex::Autolock lock(mLock);
        mRecipients.emplace(pid, recipient);
    }
    // The process's first one, or NULL.
    sp<Recipient> find(unsigned long pid) const EXCLUDES(mLock) {
        Mutex::Autolock lock(mLock);
        const auto found = mRecipients.lower_bound({pid, nullptr});
        return found == mRecipients.end() || found->first != pid ? nullptr : found->second;
    }
    // The process's first one, if any.
    void remove(unsigned long pid) EXCLUDES(mLock) {
        Mutex::Autolock lock(mLock);
        const auto found = mRecipients.lower_bound({pid, nullptr});
        if (found != mRecipients.end() && found->first == pid) mRecipients.erase(found);
    }
    // Whose there are; false when the lock cannot be had in time.
    bool look(std::vector<uint64_t>* pids) const EXCLUDES(mLock) {
        if (!LockInTime(mLock)) return false;
        for (const auto& entry : mRecipients) pids->push_back(entry.first);
        mLock.unlock();
        return true;
    }

  private:
    friend struct ClientTableTestPeer;

    mutable Mutex mLock;  // leaf lock
    std::set<std::pair<unsigned long, sp<Recipient>>> mRecipients GUARDED_BY(mLock);
};

// Position of the first client that is this callback or of this process, or -1.
template <typename Callback>
ssize_t FindClient(const ClientTable<Callback>& clients, const sp<Callback>& callback,
                   unsigned long pid) {
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients.keyAt(i) == callback || clients.valueAt(i) == pid) return ssize_t(i);
    }
    return -1;
}

// A client table and the mutex to take before using it.
template <typename Callback>
struct GuardedClients {
    Mutex& lock;
    ClientTable<Callback>& table GUARDED_BY(lock);
};

// Registers a callback under its caller's process id and links it to its death. Every outcome
// looks the same to the client; the log tells them apart.
//   recipient      what to link; NULL when memory is short. Not looked at for a NULL callback.
//   ownRecipients  where the recipient goes when it is this registration's alone; a process's later
//                  callback then replaces the earlier one. NULL when registrations share one: a
//                  process's later callback is refused.
template <typename Owner, typename Callback>
Return<void> Register(const sp<Callback>& callback,
                      const sp<ClientDeathRecipient<Owner>>& recipient,
                      const GuardedClients<Callback>& clients, const RegistrationTexts& texts,
                      RecipientTable<Owner>* ownRecipients = nullptr) {
    if (callback == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, "invalid Callback");
        return Void();
    }
    if (recipient == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, "%s", texts.noRecipient);
        return Void();
    }
    int32_t callingPid = texts.pidWithoutCaller;
    if (!ReadCallingPid(&callingPid)) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, "%s", texts.noCaller);
    }
    const unsigned long pid = ClientKey(callingPid);

    Mutex::Autolock lock(clients.lock);
    const ssize_t known = FindClient(clients.table, callback, pid);
    if (known >= 0) {
        if (ownRecipients == nullptr || clients.table.keyAt(known) == callback) {
            __android_log_print(ANDROID_LOG_INFO, texts.tag, texts.refused, pid);
            return Void();
        }
        // The old callback stays linked; its notice no longer finds this entry.
        clients.table.removeItemsAt(known);
        ownRecipients->remove(pid);
        __android_log_print(ANDROID_LOG_INFO, texts.tag, texts.replaced, pid);
    }
    // Before linking: a notice may come at once and looks it up here. It stays when linking fails.
    if (ownRecipients != nullptr) ownRecipients->add(recipient, pid);
    const Return<bool> linked = callback->linkToDeath(recipient, pid);
    if (!linked.isOk()) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, texts.linkFailed,
                            linked.description().c_str());
    } else if (!linked) {
        __android_log_print(ANDROID_LOG_WARN, texts.tag, "%s", texts.linkRefused);
    } else {
        clients.table.add(callback, pid);
        __android_log_print(ANDROID_LOG_DEBUG, texts.tag, texts.linked, pid,
                            static_cast<int>(clients.table.size()));
    }
    return Void();
}

// As above, with the recipient that registrations share, which is not made for a NULL callback.
template <typename Owner, typename Callback>
Return<void> Register(const sp<Callback>& callback, SharedRecipient<Owner>& shared,
                      const GuardedClients<Callback>& clients, const RegistrationTexts& texts) {
    return Register<Owner>(callback, callback == nullptr ? nullptr : shared.getOrMake(), clients,
                           texts);
}

// Whether there was such a link is nobody's concern. isOk(): a result that nobody looks at ends the
// process.
inline void Unlink(const sp<IBase>& object,
                   const sp<::android::hardware::hidl_death_recipient>& recipient) {
    (void)object->unlinkToDeath(recipient).isOk();
}

// Position of the first client that is the very object of a death notice, or -1. Identity is that
// of the weak reference, which outlives the object.
template <typename Callback>
ssize_t FindDeadClient(const ClientTable<Callback>& clients, const wp<IBase>& who) {
    const bool nobody = who.unsafe_get() == nullptr;
    for (size_t i = 0; i < clients.size(); ++i) {
        const sp<Callback>& callback = clients.keyAt(i);
        if (callback == nullptr ? nobody : !nobody && who.get_refs() == callback->getWeakRefs()) {
            return ssize_t(i);
        }
    }
    return -1;
}

// Removes the object of a death notice; one object may stand in both tables.
template <typename CallbackV1_1, typename CallbackV1_0>
void RemoveDeadClient(const wp<IBase>& who, ClientTable<CallbackV1_1>& clientsV1_1,
                      ClientTable<CallbackV1_0>& clientsV1_0, const DeathTexts& texts) {
    ssize_t dead = FindDeadClient(clientsV1_1, who);
    if (dead >= 0) {
        clientsV1_1.removeItemsAt(dead);
        __android_log_print(ANDROID_LOG_INFO, texts.tag, texts.removedV1_1,
                            static_cast<int>(clientsV1_1.size()));
    }
    dead = FindDeadClient(clientsV1_0, who);
    if (dead >= 0) {
        clientsV1_0.removeItemsAt(dead);
        __android_log_print(ANDROID_LOG_INFO, texts.tag, texts.removedV1_0,
                            static_cast<int>(clientsV1_0.size()));
    } else {
        // Says only that version 1.0 had no match, whatever was found above.
        __android_log_print(ANDROID_LOG_INFO, texts.tag, "finish");
    }
}

// Sends a client its own copy of the list, and keeps what came of it.
template <typename Callback, typename Record>
Return<void> CallClient(Callback* callback, unsigned long pid, ClientCalls* calls,
                        Return<void> (Callback::*send)(const hidl_vec<Record>&),
                        const std::vector<Record>& records, const CallSite& site,
                        SideCounters& counters) {
    const int64_t beginNs = NowNs();
    const InFlight::Mark mark(site, pid, beginNs);
    Return<void> sent = (callback->*send)(CopyForClient(records));
    calls->lastNs = NowNs() - beginNs;
    calls->worstNs = std::max(calls->worstNs, calls->lastNs);
    ++calls->calls;
    calls->empty += records.empty();
    calls->records += records.size();
    counters.calls.add();
    if (!sent.isOk()) {
        ++calls->failed;
        counters.failedCalls.add();
    }
    return sent;
}

// Sends every client its own copy of the whole list, in the table's order.
template <typename Callback, typename Record>
void Broadcast(const ClientTable<Callback>& clients,
               Return<void> (Callback::*send)(const hidl_vec<Record>&),
               const std::vector<Record>& records, const BroadcastTexts& texts,
               const CallSite& site, SideCounters& counters) {
    for (size_t i = 0; i < clients.size(); ++i) {
        const sp<Callback> callback = clients.keyAt(i);
        const unsigned long pid = clients.valueAt(i);
        if (callback == nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, texts.tag, texts.nullCallback, pid);
            continue;
        }
        const Return<void> sent =
                CallClient(callback.get(), pid, clients.callsAt(i), send, records, site, counters);
        if (!sent.isOk()) {
            __android_log_print(ANDROID_LOG_ERROR, texts.tag, texts.failed, texts.function, pid);
        }
    }
}

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
