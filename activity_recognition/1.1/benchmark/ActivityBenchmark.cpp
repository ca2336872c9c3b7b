// SPDX-License-Identifier: Apache-2.0
// Cost of the activity side in this process: the implementation library as it is installed, without
// transport, between a native module that does nothing and clients that count.
//
// The library is loaded as the service loads it, but finds this file's hw_get_module() before the
// platform's. Clients are objects of this process under process ids of their own choice.
//
// Figures of one run follow each other in one library, whose table of death recipients never
// shrinks and some of whose log lines tell sizes: for figures that repeat exactly, run one at a
// time.
#include <benchmark/benchmark.h>

#include <stdio.h>
#include <stdlib.h>

#include <utility>
#include <vector>

#include <hardware/hardware.h>
#include <hwbinder/IPCThreadState.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <vendor/zaltho/hardware/activity_recognition/1.1/IActivityRecognition.h>
#include <zaltho/activity_recognition_native.h>

using ::android::sp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_vec;
using ::android::hardware::IPCThreadState;
using ::android::hardware::Return;
using ::android::hardware::Void;
namespace V1_0 = ::vendor::zaltho::hardware::activity_recognition::V1_0;
namespace V1_1 = ::vendor::zaltho::hardware::activity_recognition::V1_1;

namespace {

const activity_callbacks* gCallbacks = nullptr;

int currentActivity(ar_context_event** events) {
    static ar_context_event current = {};
    current.event_type = 1;
    *events = &current;
    return 1;
}

int accept(uint32_t, uint32_t, int64_t) {
    return 0;
}

int acceptExtended(uint32_t, uint32_t, int64_t, const other_params*) {
    return 0;
}

const activity_interface kActivities = {
        [](const activity_callbacks* callbacks) { gCallbacks = callbacks; },
        [](char***) { return 0; },
        accept,
        acceptExtended,
        currentActivity,
        [](uint32_t, uint32_t) { return 0; },
        [] { return 0; },
};

int openDevice(const hw_module_t*, const char*, hw_device_t** device) {
    static activity_recognition_device native = {};
    native.common.close = [](hw_device_t*) { return 0; };
    native.get_activity_interface = [](activity_recognition_device*) { return &kActivities; };
    native.get_environment_interface =
            [](activity_recognition_device*) -> const environment_interface* { return nullptr; };
    *device = &native.common;
    return 0;
}

struct Client : public V1_1::IActivityChangedCallback {
    explicit Client(int32_t pid) : pid(pid) {}

    Return<bool> linkToDeath(const sp<hidl_death_recipient>& linked, uint64_t) override {
        recipient = linked;
        return true;
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>&) override { return true; }

    Return<void> onActivityChangedV1_1(const hidl_vec<V1_1::ActivityEventV1_1>& events) override {
        records += events.size();
        return Void();
    }
    Return<void> onActivityExtendChangedV1_1(
            const hidl_vec<V1_1::ActivityEventExtendV1_1>&) override {
        return Void();
    }
    Return<void> onActivityChanged(const hidl_vec<V1_0::ActivityEvent>&) override { return Void(); }
    Return<void> onActivityExtendChanged(const hidl_vec<V1_0::ActivityEventExtend>&) override {
        return Void();
    }

    const int32_t pid;
    size_t records = 0;
    sp<hidl_death_recipient> recipient;
};

void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "not so: %s\n", what);
    exit(EXIT_FAILURE);
}

// Calls come from this process id from now on.
void callAs(int32_t pid) {
    IPCThreadState::self()->restoreCallingIdentity((int64_t(1000) << 32) | uint32_t(pid));
}

const sp<V1_1::IActivityInterface>& activities() {
    static const sp<V1_1::IActivityInterface> service = [] {
        const sp<V1_1::IActivityRecognition> root =
                V1_1::IActivityRecognition::getService("default", /*getStub=*/true);
        require(root != nullptr, "the implementation library is where the platform looks for it");
        const sp<V1_1::IActivityInterface> got = root->getActivityInterfaceV1_1();
        require(got != nullptr && gCallbacks != nullptr, "the library offers activities");
        return got;
    }();
    return service;
}

void enable(int32_t pid, uint32_t activity, uint32_t event, int64_t seconds) {
    callAs(pid);
    require(activities()->enableActivityEvent(activity, event, seconds * 1000000000) == 0,
            "a request is accepted");
}

void disable(int32_t pid, uint32_t activity, uint32_t event) {
    callAs(pid);
    require(activities()->disableActivityEvent(activity, event) == 0, "a request is taken back");
}

constexpr int32_t kFirstClient = 100000;
constexpr int32_t kFirstOther = 500000;  // holds requests, has no callback
constexpr int32_t kNewcomer = 900000;
constexpr int32_t kPairs = 4;        // in a delivery, in turn
constexpr int32_t kOtherPairs = 96;  // not in a delivery

uint32_t activityOf(int pair) {
    return pair / 2;
}
uint32_t eventOf(int pair) {
    return 1 + pair % 2;
}

// What stands in the library's tables. What is left over from one figure goes before the next one
// is set up, so that who runs a single one needn't wait for it.
class Standing {
  public:
    static Standing& empty() {
        static Standing& standing = *new Standing;
        standing.clear();
        return standing;
    }

    // Another one, which the caller may let die.
    sp<Client> enter() {
        const sp<Client> client = new Client(mNextPid++);
        callAs(client->pid);
        require(activities()->registerActivityCallbackV1_1(client).isOk(), "a client registers");
        require(client->recipient != nullptr, "a registration is linked to its client's death");
        return client;
    }
    static void die(const sp<Client>& client) {
        client->recipient->serviceDied(client->pid, client);
    }

    Client& addClient() {
        mClients.push_back(enter());
        return *mClients.back();
    }
    // So many clients, each interested in all that a delivery carries.
    void addInterested(int64_t count) {
        for (int64_t i = 0; i < count; ++i) {
            const Client& client = addClient();
            for (int pair = 0; pair < kPairs; ++pair) add(client.pid, pair, 2 + i % 59);
        }
    }
    // Requests of as many other processes.
    void addOthers(int64_t count, int firstPair, int pairs) {
        for (int64_t i = 0; i < count; ++i) {
            add(int32_t(kFirstOther + i), int(firstPair + i % pairs), 2 + i * 7 % 59);
        }
    }

    size_t records() const {
        size_t sum = 0;
        for (const sp<Client>& client : mClients) sum += client->records;
        return sum;
    }

  private:
    void add(int32_t pid, int pair, int64_t seconds) {
        enable(pid, activityOf(pair), eventOf(pair), seconds);
        if (pid >= kFirstOther) mOthers.emplace_back(pid, pair);
    }
    void clear() {
        for (const sp<Client>& client : mClients) die(client);
        for (const auto& other : mOthers) {
            disable(other.first, activityOf(other.second), eventOf(other.second));
        }
        mClients.clear();
        mOthers.clear();
    }

    int32_t mNextPid = kFirstClient;
    std::vector<sp<Client>> mClients;
    std::vector<std::pair<int32_t, int>> mOthers;
};

// A delivery as large as they come.
void deliver() {
    static const std::vector<activity_event> events = [] {
        std::vector<activity_event> filled(ACTIVITY_RECOGNITION_MAX_EVENTS);
        for (size_t i = 0; i < filled.size(); ++i) {
            const int pair = int(i % kPairs);
            filled[i] = {eventOf(pair), activityOf(pair), int64_t(1000 + i), uint32_t(i), {}};
        }
        return filled;
    }();
    gCallbacks->activity_changed(events.data(), int(events.size()));
}

void requireRecords(const Standing& standing, int64_t clients, int64_t deliveries) {
    require(standing.records() == size_t(clients * deliveries * ACTIVITY_RECOGNITION_MAX_EVENTS),
            "everybody got everything");
}

// To that many clients, all of them interested in all records.
void Delivery(benchmark::State& state) {
    Standing& standing = Standing::empty();
    standing.addInterested(state.range(0));
    for (auto _ : state) deliver();
    requireRecords(standing, state.range(0), state.iterations());
}

// To one, of that many that are registered.
void DeliveryToOneOf(benchmark::State& state) {
    Standing& standing = Standing::empty();
    standing.addInterested(1);
    for (int64_t i = 1; i < state.range(0); ++i) standing.addClient();
    for (auto _ : state) deliver();
    requireRecords(standing, 1, state.iterations());
}

// Two, one behind an enable and one behind a disable of what is delivered, among that many requests
// for other pairs.
void DeliveryBehindChange(benchmark::State& state) {
    Standing& standing = Standing::empty();
    standing.addOthers(state.range(0), kPairs, kOtherPairs);
    standing.addInterested(1);
    const int32_t other = standing.addClient().pid;
    for (auto _ : state) {
        enable(other, activityOf(0), eventOf(0), 1);
        deliver();
        disable(other, activityOf(0), eventOf(0));
        deliver();
    }
    // A share of the pairs for the one that comes and goes.
    require(standing.records() == size_t(state.iterations() * ACTIVITY_RECOGNITION_MAX_EVENTS *
                                         (2 * kPairs + 1) / kPairs),
            "everybody got everything");
}

// An enable and its disable, by a process that changes the merge, among that many requests for the
// same pair.
void EnableDisableShared(benchmark::State& state) {
    Standing::empty().addOthers(state.range(0), 0, 1);
    for (auto _ : state) {
        enable(kNewcomer, activityOf(0), eventOf(0), 1);
        disable(kNewcomer, activityOf(0), eventOf(0));
    }
}

// The same for a pair that nobody else wants, among that many requests for others.
void EnableDisableAlone(benchmark::State& state) {
    Standing::empty().addOthers(state.range(0), kPairs, kOtherPairs);
    for (auto _ : state) {
        enable(kNewcomer, activityOf(0), eventOf(0), 1);
        disable(kNewcomer, activityOf(0), eventOf(0));
    }
}

// A client that comes, wants something and dies, after that many who did.
void RegistrationAndDeath(benchmark::State& state) {
    Standing& standing = Standing::empty();
    const auto comeAndGo = [&standing] {
        const sp<Client> client = standing.enter();
        enable(client->pid, activityOf(0), eventOf(0), 2);
        Standing::die(client);
    };
    for (int64_t i = 0; i < state.range(0); ++i) comeAndGo();
    for (auto _ : state) comeAndGo();
}

// What the platform's own table takes of the above, whatever its keys are.
void KeyedVectorInsertion(benchmark::State& state) {
    struct Key : public ::android::RefBase {};
    ::android::KeyedVector<sp<Key>, unsigned long> table;
    for (int64_t i = 0; i < state.range(0); ++i) table.add(new Key, i);
    for (auto _ : state) table.add(new Key, 0);
}

// The least that a lock once a record can cost.
void LockPairs(benchmark::State& state) {
    ::android::Mutex mutex;
    for (auto _ : state) {
        for (int i = 0; i < ACTIVITY_RECOGNITION_MAX_EVENTS; ++i) {
            mutex.lock();
            mutex.unlock();
        }
    }
}

struct Figure {
    const char* name;
    void (*run)(benchmark::State&);
    std::vector<int64_t> sizes;
};

}  // namespace

// Stands before the platform's own.
extern "C" __attribute__((visibility("default"))) int hw_get_module(const char*,
                                                                    const hw_module_t** found) {
    static hw_module_methods_t methods = {openDevice};
    static hw_module_t native = {};
    native.methods = &methods;
    *found = &native;
    return 0;
}

// Takes Google Benchmark's options, and --iterations=N: so many of each figure, once.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    int64_t iterations = 0;
    for (int i = 1; i < argc; ++i) {
        if (sscanf(argv[i], "--iterations=%ld", &iterations) == 1 && iterations > 0) continue;
        fprintf(stderr, "unknown option: %s\n", argv[i]);
        return 2;
    }
    const std::vector<Figure> figures = {
            {"Delivery", Delivery, {1, 3, 10, 30, 100, 300, 1000}},
            {"DeliveryToOneOf", DeliveryToOneOf, {1, 1000}},
            {"DeliveryBehindChange", DeliveryBehindChange, {10, 10000}},
            {"EnableDisableShared", EnableDisableShared, {10, 10000}},
            {"EnableDisableAlone", EnableDisableAlone, {10, 10000}},
            {"RegistrationAndDeath", RegistrationAndDeath, {0, 10000}},
            {"KeyedVectorInsertion", KeyedVectorInsertion, {0, 10000}},
            {"LockPairs", LockPairs, {ACTIVITY_RECOGNITION_MAX_EVENTS}},
    };
    for (const Figure& figure : figures) {
        auto* made = benchmark::RegisterBenchmark(figure.name, figure.run);
        for (int64_t size : figure.sizes) made->Arg(size);
        if (iterations > 0) made->Iterations(iterations);
    }
    // A name that fits nothing is an error, not a run of nothing.
    return benchmark::RunSpecifiedBenchmarks() > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
