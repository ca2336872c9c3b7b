// SPDX-License-Identifier: Apache-2.0
#include "Subject.h"

#include <dlfcn.h>
#include <string.h>

#include <algorithm>

#include <fmt/format.h>

namespace modulecheck {
namespace {

// A batch that was on its way when its pair was disabled may still arrive.
constexpr auto kGrace = std::chrono::milliseconds(300);

// Of each list; more tells nothing new.
constexpr uint32_t kMostEnabled = 64;

// Of this thread: callbacks of each side that have not returned, the slot that was called last and
// has not returned, and what the next callback does.
thread_local int sDepths[2] = {};
thread_local const char* sSlot = nullptr;
thread_local std::function<void()> sAction;

struct InSlot {
    explicit InSlot(const char* slot) : before(sSlot) { sSlot = slot; }
    ~InSlot() { sSlot = before; }
    const char* const before;
};

const char* callbackName(Kind kind) {
    if (kind == Kind::kPlain) return "activity_changed";
    return kind == Kind::kExtended ? "activity_extend_changed" : "environment_changed";
}

}  // namespace

const activity_callbacks kActivityCallbacks = {
        [](const activity_event* events, int count) {
            Recorder::instance().heard(Kind::kPlain, events, count);
        },
        [](const ar_context_event* events, int count) {
            Recorder::instance().heard(Kind::kExtended, events, count);
        },
};

const environment_callbacks kEnvironmentCallbacks = {
        [](const ar_context_event* events, int count) {
            Recorder::instance().heard(Kind::kEnvironment, events, count);
        },
};

bool Subject::load(Probe& probe) {
    if (probe.options.path.empty()) {
        const hw_module_t* found = nullptr;
        probe.stage("module.symbol", fmt::format("hw_get_module(\"{}\")", probe.options.id));
        const int result = hw_get_module(probe.options.id.c_str(), &found);
        if (result != 0 || found == nullptr) {
            probe.finding("module.symbol", fmt::format("hw_get_module(\"{}\") returned {}",
                                                       probe.options.id, result));
            return false;
        }
        module = const_cast<hw_module_t*>(found);
    } else {
        probe.stage("module.symbol", "dlopen");
        void* library = dlopen(probe.options.path.c_str(), RTLD_NOW);
        if (library == nullptr) {
            probe.finding("module.symbol", dlerror());
            return false;
        }
        module = static_cast<hw_module_t*>(dlsym(library, HAL_MODULE_INFO_SYM_AS_STR));
        if (module == nullptr) {
            probe.finding("module.symbol", "no symbol " HAL_MODULE_INFO_SYM_AS_STR);
            return false;
        }
        module->dso = library;
    }
    probe.exercised("module.symbol");

    probe.stage("module.tag", "reading the module record");
    probe.exercised("module.tag");
    if (module->tag != HARDWARE_MODULE_TAG) {
        probe.finding("module.tag", fmt::format("{:#010x}", module->tag));
    }
    const auto id = readText(module->id, 256);
    probe.exercised("module.id");
    if (!id) {
        probe.finding("module.id", "an unreadable text");
    } else if (*id != ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID) {
        probe.finding("module.id", fmt::format("\"{}\"", *id));
    }
    return true;
}

bool Subject::open(Probe& probe) {
    probe.stage("module.open", "methods->open");
    if (!isReadable(module->methods, sizeof(*module->methods)) ||
        module->methods->open == nullptr) {
        probe.finding("module.open", "no open method");
        return false;
    }
    hw_device_t* opened = nullptr;
    const int result =
            module->methods->open(module, ACTIVITY_RECOGNITION_HARDWARE_INTERFACE, &opened);
    if (result != 0 || !isReadable(opened, sizeof(activity_recognition_device))) {
        probe.finding("module.open", fmt::format("result {}, {}", result,
                                                 opened == nullptr ? "no device" : "a device"));
        return false;
    }
    device = reinterpret_cast<activity_recognition_device*>(opened);
    probe.exercised("module.open");
    return true;
}

bool Subject::getTables(Probe& probe) {
    probe.stage("device.tables", "the table getters");
    if (device->get_activity_interface == nullptr || device->get_environment_interface == nullptr) {
        probe.finding("device.tables", "a getter is NULL");
        return false;
    }
    activity = device->get_activity_interface(device);
    environment = device->get_environment_interface(device);
    probe.exercised("device.tables");
    bool good = true;
    const auto check = [&](const void* table, const char* side) {
        if (table == nullptr) {
            probe.note(fmt::format("no {} table: the module does not support the side", side));
            return;
        }
        // Both tables are seven pointers.
        void* slots[7] = {};
        static_assert(sizeof(slots) == sizeof(activity_interface), "");
        static_assert(sizeof(slots) == sizeof(environment_interface), "");
        if (!isReadable(table, sizeof(slots))) {
            probe.finding("device.tables", fmt::format("the {} table is unreadable", side));
            good = false;
            return;
        }
        memcpy(slots, table, sizeof(slots));
        probe.exercised("table.slots");
        for (int i = 0; i < 7; ++i) {
            if (slots[i] != nullptr) continue;
            probe.finding("table.slots", fmt::format("{} slot {} is NULL", side, i));
            good = false;
        }
    };
    check(activity, "activity");
    check(environment, "environment");
    return good;
}

int64_t Subject::newestTime() const {
    int64_t newest = 0;
    const auto look = [&](auto current) {
        ar_context_event* events = nullptr;
        const int count = current(&events);
        if (count < 1 || count > ACTIVITY_RECOGNITION_MAX_CURRENT ||
            !isReadable(events, static_cast<size_t>(count) * sizeof(*events))) {
            return;
        }
        for (int i = 0; i < count; ++i) newest = std::max(newest, events[i].timestamp);
    };
    if (activity != nullptr) look(activity->get_current_activity);
    if (environment != nullptr) look(environment->get_current_environment);
    return newest;
}

bool Subject::start(Probe& probe) {
    if (!load(probe) || !open(probe) || !getTables(probe)) return false;
    probe.stage("list.size", "the supported lists");
    char** list = nullptr;
    const auto size = [](int count) { return count > 0 ? static_cast<uint32_t>(count) : 0; };
    if (activity != nullptr) activities = size(activity->get_supported_activities_list(&list));
    if (environment != nullptr) {
        environments = size(environment->get_supported_environments_list(&list));
    }
    Recorder::instance().start(&probe, *this);
    probe.stage("call.results", "registering the callbacks");
    if (activity != nullptr) activity->register_activity_callbacks(&kActivityCallbacks);
    if (environment != nullptr) {
        environment->register_environment_callbacks(&kEnvironmentCallbacks);
    }
    return true;
}

Recorder& Recorder::instance() {
    static Recorder* const recorder = new Recorder;
    return *recorder;
}

void Recorder::start(Probe* probe, const Subject& subject) {
    std::lock_guard<std::mutex> lock(mLock);
    mProbe = probe;
    mActivities = subject.activities;
    mEnvironments = subject.environments;
}

void Recorder::willEnable(Kind kind, uint32_t what, uint32_t eventType) {
    std::lock_guard<std::mutex> lock(mLock);
    mPairs[{kind == Kind::kEnvironment, what, eventType}].enabled = true;
}

void Recorder::didDisable(Kind kind, uint32_t what, uint32_t eventType) {
    std::lock_guard<std::mutex> lock(mLock);
    mPairs[{kind == Kind::kEnvironment, what, eventType}] = {false, Clock::now()};
}

void Recorder::didClose() {
    std::lock_guard<std::mutex> lock(mLock);
    mClosed = true;
}

void Recorder::inNextCallback(bool ofEnvironment, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(mLock);
    mAction = std::move(action);
    mActionOfEnvironment = ofEnvironment;
}

bool Recorder::dropAction() {
    std::lock_guard<std::mutex> lock(mLock);
    const bool there = static_cast<bool>(mAction);
    mAction = nullptr;
    return there;
}

void Recorder::inNextCallbackHere(std::function<void()> action) {
    sAction = std::move(action);
}

int Recorder::batches() {
    std::lock_guard<std::mutex> lock(mLock);
    return mBatches;
}

bool Recorder::waitForBatch(int than, Seconds time) {
    std::unique_lock<std::mutex> lock(mLock);
    mProbe->waits(time);
    return mHeard.wait_for(lock, time, [&] { return mBatches > than; });
}

int Recorder::advances() {
    std::lock_guard<std::mutex> lock(mLock);
    return mAdvances;
}

bool Recorder::waitForAdvance(int than, Seconds time) {
    std::unique_lock<std::mutex> lock(mLock);
    mProbe->waits(time);
    return mHeard.wait_for(lock, time, [&] { return mAdvances > than; });
}

void Recorder::addTime(int64_t timestamp) {
    if (mPassed.empty() || timestamp > mPassed.rbegin()->first) {
        mPassed.emplace(timestamp, Clock::now());
    }
}

void Recorder::sawTime(int64_t timestamp) {
    std::lock_guard<std::mutex> lock(mLock);
    addTime(timestamp);
}

void Recorder::promise(Seconds latency) {
    std::lock_guard<std::mutex> lock(mLock);
    mPromised = true;
    mLatency = latency;
    mPromisedAt = Clock::now();
    mPromisedTime = mPassed.empty() ? 0 : mPassed.rbegin()->first;
    mHeldCame = mNewest >= mPromisedTime;
}

bool Recorder::waitForPromised(Seconds time) {
    std::unique_lock<std::mutex> lock(mLock);
    return mHeard.wait_for(lock, time, [&] { return mNewCame && mHeldCame; });
}

bool Recorder::checkBatch(const char* name, const void* events, int count, size_t stride) {
    mProbe->exercised("event.count");
    if (count < 1 || count > ACTIVITY_RECOGNITION_MAX_EVENTS) {
        mProbe->finding("event.count", fmt::format("{} with {} records", name, count));
        return false;
    }
    mProbe->exercised("event.array");
    if (!isReadable(events, static_cast<size_t>(count) * stride)) {
        mProbe->finding("event.array", fmt::format("{} with an unreadable array", name));
        return false;
    }
    return true;
}

// The service's callbacks of a side wait for each other, and for the clients that they call.
void Recorder::checkThread(bool isEnvironment, const char* callback) {
    const char* const slot = sSlot != nullptr ? sSlot : "a slot";
    if (sDepths[0] + sDepths[1] > 1) {
        mProbe->finding("reentry.nested",
                        fmt::format("{}, called from inside a callback, called {} on that thread: "
                                    "this works until {} from inside a callback; then the service "
                                    "hangs for good",
                                    slot, callback,
                                    sDepths[isEnvironment] > 1 ? "a client calls"
                                                               : "clients of both sides call"));
    } else if (sSlot != nullptr && mRunning[isEnvironment] > 0) {
        mProbe->finding("threads.blocked",
                        fmt::format("{} called {} on its caller's thread while a callback was "
                                    "running elsewhere: in the service it waits for that one, and "
                                    "for good when that one's client waits for this call",
                                    slot, callback));
    }
}

void Recorder::checkLatency(Kind kind, uint32_t eventType, uint32_t what, int64_t timestamp,
                            Clock::time_point at) {
    if (kind != Kind::kEnvironment || mActivities == 0) {
        (timestamp > mPromisedTime ? mNewCame : mHeldCame) = true;
        if (mNewCame) mProbe->exercised("latency.kept");
    }
    // It may have happened long before its time was seen to be over, but not after that.
    const auto passed = mPassed.lower_bound(timestamp);
    if (passed == mPassed.end()) return;
    const Seconds held = at - std::max(passed->second, mPromisedAt);
    if (held > mLatency + mProbe->options.tolerance) {
        mProbe->finding(
                "latency.kept",
                fmt::format("{} of pair ({}, {}) {:.1f} s or more after it happened, with a "
                            "latency of {:g} s",
                            callbackName(kind), what, eventType, held.count(), mLatency.count()));
        mNewCame = mHeldCame = true;
    }
}

void Recorder::checkEvent(Kind kind, const char* callback, uint32_t eventType, uint32_t what,
                          int64_t timestamp, Clock::time_point at) {
    const bool isEnvironment = kind == Kind::kEnvironment;
    for (const char* rule : {"event.type", "event.activity", "event.time", "event.enabled"}) {
        mProbe->exercised(rule);
    }
    if (mPromised) checkLatency(kind, eventType, what, timestamp, at);
    if (!isEnvironment && (eventType < 1 || eventType > 2)) {
        mProbe->finding("event.type", fmt::format("{} with type {}", callback, eventType));
        return;
    }
    if (what >= (isEnvironment ? mEnvironments : mActivities)) {
        mProbe->finding("event.activity", fmt::format("{} with number {}", callback, what));
        return;
    }
    int64_t& last = mTimes[{kind, what, eventType}];
    if (timestamp <= 0 || timestamp < last) {
        mProbe->finding("event.time", fmt::format("{} of pair ({}, {}) with time {} after {}",
                                                  callback, what, eventType, timestamp, last));
    }
    last = timestamp;

    const auto pair = mPairs.find({isEnvironment, what, eventType});
    if (pair == mPairs.end()) {
        mProbe->finding("event.enabled", fmt::format("{} of pair ({}, {}), which was never enabled",
                                                     callback, what, eventType));
    } else if (!pair->second.enabled && at > pair->second.disabledAt + kGrace) {
        mProbe->finding("event.disabled", fmt::format("{} of pair ({}, {}) after its disable",
                                                      callback, what, eventType));
    }
}

void Recorder::heard(Kind kind, const void* events, int count) {
    const auto at = Clock::now();
    const char* const name = callbackName(kind);
    const bool isEnvironment = kind == Kind::kEnvironment;
    std::function<void()> action;
    const bool outermost = sDepths[0] + sDepths[1] == 0;
    ++sDepths[isEnvironment];
    {
        std::lock_guard<std::mutex> lock(mLock);
        checkThread(isEnvironment, name);
        if (mClosed) mProbe->finding("close.silent", fmt::format("{} after close", name));
        const size_t stride =
                kind == Kind::kPlain ? sizeof(activity_event) : sizeof(ar_context_event);
        const bool good = checkBatch(name, events, count, stride);
        int64_t newest = 0;
        for (int i = 0; good && i < count; ++i) {
            if (kind == Kind::kPlain) {
                const activity_event& event = static_cast<const activity_event*>(events)[i];
                newest = std::max(newest, event.timestamp);
                checkEvent(kind, name, event.event_type, event.activity, event.timestamp, at);
                continue;
            }
            const ar_context_event& event = static_cast<const ar_context_event*>(events)[i];
            newest = std::max(newest, event.timestamp);
            checkEvent(kind, name, event.event_type, event.activity, event.timestamp, at);
            mProbe->exercised("event.name");
            if (memchr(event.name, 0, sizeof(event.name)) == nullptr) {
                mProbe->finding("event.name", fmt::format("{} without a NUL in name", name));
            }
        }
        ++mBatches;
        if (newest > mNewest) ++mAdvances, mNewest = newest;
        addTime(newest);
        if (sAction) {
            action.swap(sAction);
        } else if (mActionOfEnvironment == isEnvironment) {
            action.swap(mAction);
        }
        if (outermost) ++mRunning[isEnvironment];
    }
    mHeard.notify_all();
    if (action) {
        // What it calls is called from inside the callback, not from the slot that made it.
        const InSlot none(nullptr);
        action();
    }
    std::lock_guard<std::mutex> lock(mLock);
    if (outermost) --mRunning[isEnvironment];
    --sDepths[isEnvironment];
}

int Calls::enable(Kind kind, uint32_t what, uint32_t eventType, int64_t latencyNs) const {
    static const char* const slots[] = {"enable_activity_event", "enable_activity_event_extend",
                                        "enable_environment"};
    const InSlot here(slots[static_cast<int>(kind)]);
    Recorder::instance().willEnable(kind, what, eventType);
    if (kind == Kind::kPlain) {
        return subject.activity->enable_activity_event(what, eventType, latencyNs);
    }
    const GuardedParams params(probe, {2, 0, 0, 0}, "modulecheck");
    if (kind == Kind::kExtended) {
        return subject.activity->enable_activity_event_extend(what, eventType, latencyNs,
                                                              params.get());
    }
    return subject.environment->enable_environment(what, eventType, latencyNs, params.get());
}

int Calls::disable(Kind kind, uint32_t what, uint32_t eventType) const {
    const InSlot here(kind == Kind::kEnvironment ? "disable_environment"
                                                 : "disable_activity_event");
    const int result = kind == Kind::kEnvironment
                               ? subject.environment->disable_environment(what, eventType)
                               : subject.activity->disable_activity_event(what, eventType);
    Recorder::instance().didDisable(kind, what, eventType);
    return result;
}

int Calls::flush() const {
    const InSlot here("flush");
    return subject.activity != nullptr ? subject.activity->flush() : 0;
}

int Calls::init(uint32_t environment, const std::string& name) const {
    const InSlot here("init_environment");
    const GuardedParams params(probe, {0, 0, 0, 0}, name);
    return subject.environment->init_environment(environment, params.get());
}

int Calls::exit(uint32_t environment, const std::string& name) const {
    const InSlot here("exit_environment");
    const GuardedParams params(probe, {0, 0, 0, 0}, name);
    return subject.environment->exit_environment(environment, params.get());
}

void Calls::enableAll(int64_t latencyNs) const {
    const uint32_t activities = std::min(subject.activities, kMostEnabled);
    const uint32_t environments = std::min(subject.environments, kMostEnabled);
    for (uint32_t type = 1; type <= 2; ++type) {
        for (uint32_t i = 0; subject.activity != nullptr && i < activities; ++i) {
            enable(Kind::kExtended, i, type, latencyNs);
        }
        for (uint32_t i = 0; subject.environment != nullptr && i < environments; ++i) {
            init(i, "");
            enable(Kind::kEnvironment, i, type, latencyNs);
        }
    }
}

void Calls::disableAll() const {
    const uint32_t activities = std::min(subject.activities, kMostEnabled);
    const uint32_t environments = std::min(subject.environments, kMostEnabled);
    for (uint32_t type = 1; type <= 2; ++type) {
        for (uint32_t i = 0; subject.activity != nullptr && i < activities; ++i) {
            disable(Kind::kExtended, i, type);
        }
        for (uint32_t i = 0; subject.environment != nullptr && i < environments; ++i) {
            disable(Kind::kEnvironment, i, type);
        }
    }
}

}  // namespace modulecheck
