// SPDX-License-Identifier: Apache-2.0
// What the object tests stand on: a scripted native module, scripted clients, the captured log,
// pretended callers, failing allocations, and a way into the working objects' tables.
#pragma once

#include <string.h>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <hidl/Status.h>
#include <hwbinder/IPCThreadState.h>
#include <utils/Mutex.h>

#include "ActivityInterface.h"
#include "ActivityRecognition.h"
#include "EnvironmentInterface.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {

using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::IPCThreadState;
using ::android::hardware::Status;
using Lines = std::vector<std::string>;

// The tables, for tests that no other thread disturbs.
struct ClientTableTestPeer {
    template <typename R>
    static auto& of(RecipientTable<R>& on) NO_THREAD_SAFETY_ANALYSIS {
        return on.mRecipients;
    }
    template <typename R>
    static auto& of(SharedRecipient<R>& on) NO_THREAD_SAFETY_ANALYSIS {
        return on.mRecipient;
    }
};
using Recipients = ClientTableTestPeer;

struct ActivityInterfaceTestPeer {
    using I = ActivityInterface;
    static auto& clientsV1_1() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_1; }
    static auto& clientsV1_0() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_0; }
    static auto& requests() NO_THREAD_SAFETY_ANALYSIS { return I::mEventData; }
    static auto& barriers() NO_THREAD_SAFETY_ANALYSIS { return I::firstReport; }
    static auto& lastEvents() NO_THREAD_SAFETY_ANALYSIS { return I::mLastActivityEvent.mRecords; }
    static auto& reported() NO_THREAD_SAFETY_ANALYSIS { return I::packageNames; }
    // Of a batch that is being delivered.
    static void route(const activity_event& event, int32_t pid) NO_THREAD_SAFETY_ANALYSIS {
        I::PackageNamePush(&event, 1, pid, I::sBatch);
    }
    // What a batch does between its log lines, with between() after each record.
    template <typename Between>
    static void deliver(const std::vector<activity_event>& events, int32_t pid,
                        const Between& between) NO_THREAD_SAFETY_ANALYSIS {
        ::android::Mutex::Autolock lock(I::mListMutex);
        for (const activity_event& event : events) {
            route(event, pid);
            if (event.event_type != 0) between();
        }
        I::ActivitiesReport(I::sBatch);
        I::sBatch.clear();
    }
    // What deliveries keep for the next.
    static void forget() NO_THREAD_SAFETY_ANALYSIS {
        I::sRoutes = RouteMemory();
        I::sBatch = RoutedBatch();
    }
    static void forgetCounts() {
        new (&I::sCounters) ActivityCounters();
        new (&I::sHistory) AttemptHistory();
    }
    // What a re-enable of the pair needs, by walking all requests.
    static auto merge(uint32_t activity, uint32_t event) NO_THREAD_SAFETY_ANALYSIS {
        EnableRequestTable::Merge merge;
        for (uint32_t i = 0; i <= requests().size(); ++i) {
            merge.remains |= I::ValidEventActivity(i, activity, event, merge.allExtended,
                                                   merge.noWakeParams);
        }
        return merge;
    }
    static auto& natives(I& on) NO_THREAD_SAFETY_ANALYSIS { return on.mEnableToNativeData; }
    static auto& listMutex() { return I::mListMutex; }
    static auto& eventMutex() { return I::eventMutex; }
    static bool isFree(::android::Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
        const bool free = mutex.tryLock() == 0;
        if (free) mutex.unlock();
        return free;
    }
    static auto& recipients(I& on) { return Recipients::of(on.mDeathRecipientVectorV1_1); }
    static auto& sharedRecipient(I& on) { return Recipients::of(on.mDeathRecipient); }
};

struct EnvironmentInterfaceTestPeer {
    using I = EnvironmentInterface;
    static auto& clientsV1_1() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_1; }
    static auto& clientsV1_0() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_0; }
    static auto& sharedRecipient(I& on) { return Recipients::of(on.mDeathRecipient); }
    static void forgetCounts() { new (&I::sCounters) SideCounters(); }
};

using Act = ActivityInterfaceTestPeer;
using Env = EnvironmentInterfaceTestPeer;

template <typename... T>
std::string Joined(const char* between, T... values) {
    std::ostringstream text;
    const char* before = "";
    ((text << std::exchange(before, between) << values), ...);
    return text.str();
}

// Client records as "(type,activity,timestamp,...)", the tables' as "pid activity event ...".
inline std::string Text(const ActivityEvent& e) {
    return "(" + Joined(",", e.eventType, e.activity, e.timestamp) + ")";
}
inline std::string Text(const ActivityEventV1_1& e) {
    return "(" + Joined(",", e.eventType, e.activity, e.timestamp, e.extra) + ")";
}
inline std::string Text(const ActivityEventExtend& e) {
    const auto& d = e.contextData;
    return "(" + Joined(",", e.eventType, e.activity, e.timestamp, e.value) + "," +
           Joined(",", d[0], d[1], d[2], d[3], e.name) + ")";
}
inline std::string Text(const ActivityEventExtendV1_1& e) {
    const auto& d = e.contextData;
    return "(" + Joined(",", e.eventType, e.activity, e.timestamp, e.extra, e.value) + "," +
           Joined(",", d[0], d[1], d[2], d[3], e.name) + ")";
}
inline std::string Text(const hidl_string& name) {
    return name;
}
inline std::string Text(const other_params& params) {
    const double* p = params.params;
    const std::string name(params.name, strnlen(params.name, sizeof(params.name)));
    return "[" + Joined(" ", p[0], p[1], p[2], p[3], "'" + name + "'") + "]";
}
inline std::string Text(const EnableRequestData& r) {
    return Joined(" ", r.pid, r.activity, r.event, r.reportLatencyNs);
}
inline std::string Text(const EnableToNativeData& n) {
    return Joined(" ", n.pid, n.activity, n.event, n.reportLatencyNs, n.noWake);
}
inline std::string Text(const EventResponseData& e) {
    return Joined(" ", e.pid, e.activity, e.event, e.timestamp);
}
inline std::string Text(const FirstReport& b) {
    return Joined(" ", b.pid, b.activity, b.event, b.timestamp);
}

template <typename Records>
Lines Texts(const Records& records) {
    Lines lines;
    for (const auto& record : records) lines.push_back(Text(record));
    return lines;
}

// Log lines as "E AR_impl: text", in their order.
Lines TakeLog();

// What the clients got, as "name plain (1,1,10,0)", in their order.
Lines TakeJournal();
void Note(const std::string& line);

extern const activity_interface kActivityTable;
extern const environment_interface kEnvironmentTable;

// A copy in a block of just its size: the address sanitizer sees who reads past it.
template <typename T>
std::unique_ptr<T[]> Exactly(const std::vector<T>& all) {
    std::unique_ptr<T[]> copy(new T[all.size()]);
    std::copy(all.begin(), all.end(), copy.get());
    return copy;
}

// A native module. Calls are noted as "enable 1 1 5000000000"; results and snapshots as scripted.
struct Module {
    Lines calls;
    std::map<std::string, int> results;     // by slot, 0 unless set; of "find" and "open", too
    std::function<void()> inside;           // runs inside every control call and snapshot
    std::vector<ar_context_event> current;  // for both sides' snapshots and lists
    std::vector<std::string> names;
    std::optional<int> countOverride;  // what snapshots and lists answer instead of their size
    bool nullArrays = false;
    const activity_interface* activityTable = &kActivityTable;  // what the device offers
    const environment_interface* environmentTable = &kEnvironmentTable;
    const activity_callbacks* activity = nullptr;
    const environment_callbacks* environment = nullptr;

    Lines take() { return std::exchange(calls, {}); }
    int count(size_t size) const { return countOverride.value_or(int(size)); }
};
inline Module module;

// Serves as if the caller were this process, while it lives.
class As {
  public:
    explicit As(int32_t pid) : mToken(IPCThreadState::self()->clearCallingIdentity()) {
        IPCThreadState::self()->restoreCallingIdentity((int64_t(1000) << 32) | uint32_t(pid));
    }
    ~As() { IPCThreadState::self()->restoreCallingIdentity(mToken); }

  private:
    int64_t mToken;
};

// No thread has binder state while it lives.
struct WithoutThreadState {
    WithoutThreadState() { IPCThreadState::shutdown(); }
    ~WithoutThreadState() { IPCThreadState::restart(); }
};

// Non-throwing allocations fail while it lives.
struct WithoutMemory {
    WithoutMemory() { active = true; }
    ~WithoutMemory() { active = false; }
    static inline std::atomic<bool> active{false};
};

// A client's callback: notes what it gets in the journal, answers as scripted.
template <typename Interface>
struct Client : public Interface {
    explicit Client(std::string name) : name(std::move(name)) {}

    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie) override {
        recipients.push_back(recipient);
        cookies.push_back(cookie);
        if (!link.isOk()) return link;
        return linkAnswer;
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
        unlinked.push_back(recipient);
        if (insideUnlink) std::exchange(insideUnlink, nullptr)();
        if (!link.isOk()) return link;
        return true;
    }

    template <typename Record>
    Return<void> got(const char* what, const hidl_vec<Record>& events) {
        std::string line = name + " " + what;
        for (const Record& event : events) line += " " + Text(event);
        Note(line);
        if (inside) inside();
        return send;
    }

    const std::string name;
    Status link = Status::ok();
    bool linkAnswer = true;
    Status send = Status::ok();
    std::function<void()> inside;        // runs inside every event call
    std::function<void()> insideUnlink;  // runs inside the next unlinkToDeath
    std::vector<wp<hidl_death_recipient>> recipients;
    std::vector<uint64_t> cookies;
    std::vector<sp<hidl_death_recipient>> unlinked;
};

template <typename Interface>
struct ActClient : Client<Interface> {
    using Client<Interface>::Client;
    Return<void> onActivityChanged(const hidl_vec<ActivityEvent>& e) override {
        return this->got("plain", e);
    }
    Return<void> onActivityExtendChanged(const hidl_vec<ActivityEventExtend>& e) override {
        return this->got("extended", e);
    }
};
using ActClient0 = ActClient<V1_0::IActivityChangedCallback>;
struct ActClient1 : ActClient<V1_1::IActivityChangedCallback> {
    using ActClient::ActClient;
    Return<void> onActivityChangedV1_1(const hidl_vec<ActivityEventV1_1>& e) override {
        return got("plain", e);
    }
    Return<void> onActivityExtendChangedV1_1(const hidl_vec<ActivityEventExtendV1_1>& e) override {
        return got("extended", e);
    }
};

template <typename Interface>
struct EnvClient : Client<Interface> {
    using Client<Interface>::Client;
    Return<void> onEnvironmentChanged(const hidl_vec<ActivityEventExtend>& e) override {
        return this->got("extended", e);
    }
};
using EnvClient0 = EnvClient<V1_0::IEnvironmentChangedCallback>;
struct EnvClient1 : EnvClient<V1_1::IEnvironmentChangedCallback> {
    using EnvClient::EnvClient;
    Return<void> onEnvironmentChangedV1_1(const hidl_vec<ActivityEventExtendV1_1>& e) override {
        return got("extended", e);
    }
};

inline OtherParams Params(const std::array<double, 4>& params, const std::string& name = "") {
    return {params, name};
}
inline ar_context_event Context(uint32_t type, uint32_t activity, int64_t timestamp,
                                uint32_t extra = 0, uint32_t value = 0,
                                const std::string& name = "") {
    ar_context_event event = {type, activity, timestamp, extra, value, {1, 2, 3, ~0ull}, {}};
    memcpy(event.name, name.data(), name.size());
    return event;
}

// One working object a side.
class Objects {
  protected:
    Objects() { make(); }
    ~Objects() { drop(); }

    // Both objects anew, with empty tables, on an unscripted module, with nothing logged.
    void make(const activity_interface* activity = &kActivityTable,
              const environment_interface* environment = &kEnvironmentTable);
    void drop();

    sp<ActivityInterface> act;
    sp<EnvironmentInterface> env;
};

// Every test starts with them.
class ObjectTest : public ::testing::Test, protected Objects {
  protected:
    // Calls as that process.
    int32_t enable(int pid, uint32_t activity, uint32_t event, int64_t latencyNs) {
        As caller(pid);
        return act->enableActivityEvent(activity, event, latencyNs);
    }
    int32_t enableExtended(int pid, uint32_t activity, uint32_t event, int64_t latencyNs,
                           const OtherParams& params) {
        As caller(pid);
        return act->enableActivityEventExtend(activity, event, latencyNs, params);
    }
    int32_t disable(int pid, uint32_t activity, uint32_t event) {
        As caller(pid);
        return act->disableActivityEvent(activity, event);
    }

    Return<void> enter(const sp<ActClient0>& c) { return act->registerActivityCallback(c); }
    Return<void> enter(const sp<ActClient1>& c) { return act->registerActivityCallbackV1_1(c); }
    Return<void> enter(const sp<EnvClient0>& c) { return env->registerEnvironmentCallback(c); }
    Return<void> enter(const sp<EnvClient1>& c) { return env->registerEnvironmentCallbackV1_1(c); }
    template <typename C>
    void enter(int pid, const sp<C>& client) {
        As caller(pid);
        EXPECT_TRUE(enter(client).isOk());
    }
    template <typename C>
    sp<C> add(int pid, const std::string& name) {
        const sp<C> client = new C(name);
        enter(pid, client);
        return client;
    }

    // Calls as the module.
    void plain(const std::vector<activity_event>& events) {
        module.activity->activity_changed(events.data(), int(events.size()));
    }
    void extended(const std::vector<ar_context_event>& events) {
        module.activity->activity_extend_changed(events.data(), int(events.size()));
    }
    void environment(const std::vector<ar_context_event>& events) {
        module.environment->environment_changed(events.data(), int(events.size()));
    }
};

}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
