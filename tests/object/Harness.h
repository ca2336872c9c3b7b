// What the object tests stand on: a scripted native module, scripted clients, the captured log,
// pretended callers, failing allocations, and a way into the working objects' tables.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
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
using ::android::hardware::Void;
using Lines = std::vector<std::string>;

// The tables and native entry points, for tests that no other thread disturbs.
struct ActivityInterfaceTestPeer {
    using I = ActivityInterface;
    static auto& clientsV1_1() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_1; }
    static auto& clientsV1_0() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_0; }
    static auto& requests() NO_THREAD_SAFETY_ANALYSIS { return I::mEventData; }
    static auto& barriers() NO_THREAD_SAFETY_ANALYSIS { return I::firstReport; }
    static auto& lastEvents() NO_THREAD_SAFETY_ANALYSIS { return I::mLastActivityEvent; }
    static auto& reported() NO_THREAD_SAFETY_ANALYSIS { return I::packageNames; }
    static auto& natives(I& object) NO_THREAD_SAFETY_ANALYSIS { return object.mEnableToNativeData; }
    static auto& recipients(I& object) NO_THREAD_SAFETY_ANALYSIS {
        return object.mDeathRecipientVectorV1_1;
    }
    static auto& sharedRecipient(I& object) NO_THREAD_SAFETY_ANALYSIS {
        return object.mDeathRecipient;
    }
    static void clear();
    static int64_t lastTime(uint64_t pid, uint32_t activity,
                            uint32_t event) NO_THREAD_SAFETY_ANALYSIS {
        return I::GetLastTime(pid, activity, event);
    }
    static bool scanStep(uint32_t index, uint32_t activity, uint32_t event, bool& allExtended,
                         other_params& noWake) NO_THREAD_SAFETY_ANALYSIS {
        return I::ValidEventActivity(index, activity, event, allExtended, noWake);
    }
    static void route(const activity_event* events, int count, int pid,
                      std::vector<EventResponseData>& batch) NO_THREAD_SAFETY_ANALYSIS {
        I::PackageNamePush(events, count, pid, batch);
    }
    static void report(const std::vector<EventResponseData>& batch) NO_THREAD_SAFETY_ANALYSIS {
        I::ActivitiesReport(batch);
    }
    static int32_t enableExtended(I& object, const OtherParams& params) {
        return object.EnableActivityEvent(1, 1, 0, params);
    }
};

struct EnvironmentInterfaceTestPeer {
    using I = EnvironmentInterface;
    static auto& clientsV1_1() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_1; }
    static auto& clientsV1_0() NO_THREAD_SAFETY_ANALYSIS { return I::mClientVectorV1_0; }
    static auto& sharedRecipient(I& object) NO_THREAD_SAFETY_ANALYSIS {
        return object.mDeathRecipient;
    }
    static void clear();
};

using Act = ActivityInterfaceTestPeer;
using Env = EnvironmentInterfaceTestPeer;

// Log lines as "E AR_impl: text", in their order. All are also remembered for the whole run.
Lines TakeLog();
const std::set<std::string>& EverLogged();

// A native module. Calls are noted as "enable 1 1 5000000000"; results and snapshots as scripted.
struct Module {
    Lines calls;
    std::map<std::string, int> results;     // by slot, 0 unless set
    std::function<void()> inside;           // runs inside every int slot of a control call
    std::vector<ar_context_event> current;  // for both sides' snapshots and lists
    std::vector<std::string> names;
    int countOverride = INT32_MIN;  // what snapshots and lists answer instead of their size
    bool nullArrays = false;
    const activity_callbacks* activity = nullptr;
    const environment_callbacks* environment = nullptr;

    Lines take() { return std::exchange(calls, {}); }
};
extern Module module;
extern const activity_interface kActivityTable;
extern const environment_interface kEnvironmentTable;

// What hw_get_module and the module's open answer, and what the device offers.
struct Device {
    int getModule = 0;
    int open = 0;
    int opened = 0;
    int closed = 0;
    const activity_interface* activity = &kActivityTable;
    const environment_interface* environment = &kEnvironmentTable;
};
extern Device device;

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
    WithoutMemory();
    ~WithoutMemory();
};

// A client's callback: notes what it gets in the journal, answers as scripted.
Lines TakeJournal();
void Note(const std::string& line);

std::string Text(const ActivityEvent& e);
std::string Text(const ActivityEventV1_1& e);
std::string Text(const ActivityEventExtend& e);
std::string Text(const ActivityEventExtendV1_1& e);

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
    std::function<void()> inside;  // runs inside every event call
    std::vector<wp<hidl_death_recipient>> recipients;
    std::vector<uint64_t> cookies;
    std::vector<sp<hidl_death_recipient>> unlinked;
};

struct ActClient0 : Client<V1_0::IActivityChangedCallback> {
    using Client::Client;
    Return<void> onActivityChanged(const hidl_vec<ActivityEvent>& e) override {
        return got("plain", e);
    }
    Return<void> onActivityExtendChanged(const hidl_vec<ActivityEventExtend>& e) override {
        return got("extended", e);
    }
};
struct ActClient1 : Client<V1_1::IActivityChangedCallback> {
    using Client::Client;
    Return<void> onActivityChanged(const hidl_vec<ActivityEvent>& e) override {
        return got("plain1.0", e);
    }
    Return<void> onActivityExtendChanged(const hidl_vec<ActivityEventExtend>& e) override {
        return got("extended1.0", e);
    }
    Return<void> onActivityChangedV1_1(const hidl_vec<ActivityEventV1_1>& e) override {
        return got("plain", e);
    }
    Return<void> onActivityExtendChangedV1_1(const hidl_vec<ActivityEventExtendV1_1>& e) override {
        return got("extended", e);
    }
};
struct EnvClient0 : Client<V1_0::IEnvironmentChangedCallback> {
    using Client::Client;
    Return<void> onEnvironmentChanged(const hidl_vec<ActivityEventExtend>& e) override {
        return got("extended", e);
    }
};
struct EnvClient1 : Client<V1_1::IEnvironmentChangedCallback> {
    using Client::Client;
    Return<void> onEnvironmentChanged(const hidl_vec<ActivityEventExtend>& e) override {
        return got("extended1.0", e);
    }
    Return<void> onEnvironmentChangedV1_1(const hidl_vec<ActivityEventExtendV1_1>& e) override {
        return got("extended", e);
    }
};

OtherParams Params(double p0, double p1, double p2, double p3, const std::string& name = "");
ar_context_event Context(uint32_t type, uint32_t activity, int64_t timestamp, uint32_t extra = 0,
                         uint32_t value = 0, const std::string& name = "");

// Every test starts from empty tables, one working object a side and an empty log.
class ObjectTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Makes both anew on these tables.
    void Make(const activity_interface* activity, const environment_interface* environment);

    // Calls as that process, the whole results checked in place.
    int32_t enable(int pid, uint32_t activity, uint32_t event, int64_t latencyNs);
    int32_t enableExtended(int pid, uint32_t activity, uint32_t event, int64_t latencyNs,
                           const OtherParams& params);
    int32_t disable(int pid, uint32_t activity, uint32_t event);
    template <typename C>
    sp<C> add(int pid, const std::string& name);
    void plain(const std::vector<activity_event>& events) {
        module.activity->activity_changed(events.data(), int(events.size()));
    }
    void extended(const std::vector<ar_context_event>& events) {
        module.activity->activity_extend_changed(events.data(), int(events.size()));
    }
    void environment(const std::vector<ar_context_event>& events) {
        module.environment->environment_changed(events.data(), int(events.size()));
    }

    sp<ActivityInterface> act;
    sp<EnvironmentInterface> env;
};

inline void Register(ActivityInterface& act, EnvironmentInterface&, const sp<ActClient0>& c) {
    ASSERT_TRUE(act.registerActivityCallback(c).isOk());
}
inline void Register(ActivityInterface& act, EnvironmentInterface&, const sp<ActClient1>& c) {
    ASSERT_TRUE(act.registerActivityCallbackV1_1(c).isOk());
}
inline void Register(ActivityInterface&, EnvironmentInterface& env, const sp<EnvClient0>& c) {
    ASSERT_TRUE(env.registerEnvironmentCallback(c).isOk());
}
inline void Register(ActivityInterface&, EnvironmentInterface& env, const sp<EnvClient1>& c) {
    ASSERT_TRUE(env.registerEnvironmentCallbackV1_1(c).isOk());
}

template <typename C>
sp<C> ObjectTest::add(int pid, const std::string& name) {
    const sp<C> client = new C(name);
    As caller(pid);
    Register(*act, *env, client);
    return client;
}

}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
