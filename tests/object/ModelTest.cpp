// Random programs drive the library and the model of its rules side by side. After every step all
// that shows is the same: log, native calls, what clients got, results, tables.
#include <android/log.h>

#include <random>

#include "Harness.h"
#include "ar_model/Model.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

using ar_model::Caller;
using Times = std::vector<int64_t>;

// Where the library or the model is when somebody calls it back.
enum class Inside { kModule, kClient, kUnlink };
std::function<void(Inside)> inside;

// A client that serves in either version, and notes its links, too.
template <typename C>
struct Linked : C {
    using C::C;
    Return<bool> linkToDeath(const sp<hidl_death_recipient>& by, uint64_t cookie) override {
        Note(Joined(" ", this->name, "linked", uint64_t(by.get()), cookie));
        return C::linkToDeath(by, cookie);
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& by) override {
        Note(Joined(" ", this->name, "unlinked", uint64_t(by.get())));
        inside(Inside::kUnlink);
        return true;  // and does not hold on to it, which holds the object
    }
};
using Act1 = Linked<ActClient1>;
using Env1 = Linked<EnvClient1>;
template <typename C>
using Pool = std::map<uint64_t, sp<C>>;  // by address, so that a seed means the same in every run

// Both sides' records in one form.
template <typename Numbers>
std::string Shown(const Numbers& n, const std::string& name) {
    return "[" + Joined(" ", n[0], n[1], n[2], n[3], "'" + name + "'") + "]";
}
std::string Row(const EnableRequestData& r) {
    const other_params& p = r.otherParams;
    return Text(r) + Shown(p.params, std::string(p.name, strnlen(p.name, sizeof(p.name))));
}
std::string Row(const ar_model::Request& r) {
    return Joined(" ", r.pid, r.activity, r.event, r.latencyNs) +
           Shown(r.params.numbers, r.params.name);
}
std::string Row(const ar_model::NativeEnable& n) {
    return Joined(" ", n.pid, n.activity, n.event, n.latencyNs, n.noWake);
}
std::string Row(const ar_model::Moment& m) {
    return Joined(" ", m.pid, m.activity, m.event, m.timestamp);
}
std::string Row(const ar_model::Entry& e) {
    return Joined(" ", e.object, e.pid);
}
template <typename Record>
std::string Row(const Record& record) {
    if constexpr (std::is_integral_v<Record>)
        return std::to_string(record);
    else
        return Text(record);
}
template <typename Table>
Lines Rows(const Table& table) {
    Lines rows;
    for (const auto& record : table) rows.push_back(Row(record));
    return rows;
}
template <typename Key>
std::vector<ar_model::Entry> Entries(const ::android::KeyedVector<sp<Key>, unsigned long>& table) {
    std::vector<ar_model::Entry> entries;
    for (size_t i = 0; i < table.size(); ++i) {
        entries.push_back({uint64_t(table.keyAt(i).get()), table.valueAt(i)});
    }
    return entries;
}

class ModelTest : public ObjectTest, public ar_model::World {
  protected:
    // Runs on either, as onModel says.
    using Step = std::function<void()>;

    template <typename F>
    auto with(uint64_t client, F use) {
        const auto found = acts.find(client);
        return found != acts.end() ? use(*found->second) : use(*envs.at(client));
    }

    // ---- The world, as the Harness scripts it for the library.

    int32_t call(const ar_model::NativeCall& call) override {
        static const std::map<std::string, std::string> kSlots = {
                {"enable_activity_event", "enable"},   {"enable_activity_event_extend", "extend"},
                {"disable_activity_event", "disable"}, {"flush", "flush"},
                {"init_environment", "init"},          {"exit_environment", "exit"},
                {"enable_environment", "enable"},      {"disable_environment", "disable"}};
        const std::string& slot = kSlots.at(call.slot);
        std::string line = slot;
        if (call.id) line += " " + std::to_string(*call.id);
        if (call.event) line += " " + std::to_string(*call.event);
        if (call.latencyNs) line += " " + std::to_string(*call.latencyNs);
        if (call.params) line += " " + Shown(call.params->numbers, call.params->name);
        calls.push_back(line);
        inside(Inside::kModule);
        const auto result = module.results.find(slot);
        return result == module.results.end() ? 0 : result->second;
    }
    ar_model::Snapshot currentActivity() override {
        inside(Inside::kModule);
        ar_model::Snapshot answer;
        for (const auto& event : module.current) answer.times.push_back(event.timestamp);
        answer.count =
                module.countOverride == INT32_MIN ? int(answer.times.size()) : module.countOverride;
        if (module.nullArrays) answer.times.clear();
        return answer;
    }
    bool deliver(uint64_t to, const std::string& method,
                 const std::vector<ar_model::Event>& events) override {
        const bool v1_1 = method.find("V1_1") != std::string::npos;
        const bool plain = method.find("onActivityChanged") == 0;
        return with(to, [&](auto& client) {
            std::string line = client.name + (plain ? " plain" : " extended");
            for (const auto& e : events) {
                line += " (" + Joined(",", e.type, e.activity, e.timestamp);
                if (v1_1) line += "," + std::to_string(e.extra);
                if (!plain) line += "," + std::to_string(e.value) + "," + e.name;
                line += ")";
            }
            journal.push_back(line);
            inside(Inside::kClient);
            return client.send.isOk();
        });
    }
    uint64_t newRecipient() override { return memory ? recipient : 0; }
    ar_model::LinkAnswer link(uint64_t to, uint64_t by, uint64_t cookie) override {
        return with(to, [&](auto& client) -> ar_model::LinkAnswer {
            journal.push_back(Joined(" ", client.name, "linked", by, cookie));
            if (!client.link.isOk()) return {ar_model::Link::kFailed, client.link.description()};
            if (!client.linkAnswer) return {ar_model::Link::kRefused};
            return {};
        });
    }
    void unlink(uint64_t from, uint64_t by) override {
        with(from, [&](auto& client) {
            journal.push_back(Joined(" ", client.name, "unlinked", by));
            inside(Inside::kUnlink);
        });
    }
    void log(char level, const std::string& tag, const std::string& text) override {
        logged.push_back(std::string(1, level) + " " + tag + ": " + text);
    }

    // ---- Steps.

    template <typename F>
    static auto as(Caller caller, F run) {
        if (!caller) {
            WithoutThreadState none;
            return run();
        }
        As process(*caller);
        return run();
    }
    // Runs a client's call as that process, on the library or on the model, and notes its result.
    template <typename Real, typename Modelled>
    void client(Caller caller, Real real, Modelled modelled) {
        if (onModel) return journal.push_back("= " + std::to_string(modelled()));
        Note("= " + std::to_string(int32_t(as(caller, real))));
    }
    // The library's turn comes first: it shows which recipient it made.
    template <typename Side, typename Shared, typename C>
    void enterAs(Caller caller, const sp<C>& client, bool v1_1, Side& modelled, Shared& shared,
                 const std::function<Return<void>()>& real) {
        const uint64_t callback = uint64_t(client.get());
        if (onModel) {
            return v1_1 ? modelled.registerV1_1(caller, callback)
                        : modelled.registerV1_0(caller, callback);
        }
        const size_t links = client == nullptr ? 0 : client->recipients.size();
        WithoutMemory::active = !memory;
        EXPECT_TRUE(as(caller, real).isOk());
        WithoutMemory::active = false;
        recipient = std::max<uint64_t>(uint64_t(shared.get()), 1);
        if (client != nullptr && client->recipients.size() > links) {
            recipient = uint64_t(client->recipients.back().unsafe_get());
        }
    }
    template <typename C>
    void die(uint64_t cookie, const sp<C>& client, bool empty) {
        // An object that cannot be promoted stands in no table: no number is its.
        const ar_model::Who who = {client != nullptr ? uint64_t(client.get())
                                   : empty           ? 0
                                                     : ~0ull,
                                   client != nullptr};
        const wp<IBase> gone = sp<IBase>(new C("gone"));
        const wp<IBase> real = client != nullptr ? wp<IBase>(sp<IBase>(client))
                               : empty           ? wp<IBase>()
                                                 : gone;
        if constexpr (std::is_same_v<C, Act1>) {
            onModel ? activity->died(cookie, who) : act->HandleHidlDeath(cookie, real);
        } else {
            onModel ? environment->died(cookie, who) : env->HandleHidlDeath(cookie, real);
        }
    }

    int below(unsigned n) { return int(random() % n); }
    template <typename T>
    T oneOf(const std::vector<T>& values) {
        return values[below(values.size())];
    }
    Caller anyCaller() { return oneOf<Caller>({0, -1, 1, 2, 3, 4, 5}); }
    int64_t anyTime() { return below(6) ? below(30) - 5 : oneOf<int64_t>({INT64_MIN, INT64_MAX}); }
    int64_t anyLatency() {
        return below(2) ? below(9) * 1000000000ll
                        : oneOf<int64_t>(
                                  {999999999, 2500000000, -1, -5000000000, INT64_MIN, INT64_MAX});
    }
    ar_model::Params anyParams() {
        const auto numbers = oneOf<std::array<double, 4>>(
                {{1, 0, 0, 0}, {1, -0.0, 0, 0}, {1, 0, 0, 0.5}, {2, 0, 0, 0}, {0, 5, 0, 0}});
        return {numbers, below(8) ? "n" + std::to_string(below(9))
                                  : std::string(oneOf<int>({0, 31, 32, 33}), 'x')};
    }
    template <typename C>
    sp<C> anyOf(const Pool<C>& pool) {
        return std::next(pool.begin(), below(pool.size()))->second;
    }

    // What a client may do from inside its callback.
    Step clientCall(Caller caller) {
        const uint32_t activity = below(3);
        const uint32_t event = below(10) ? 1 + below(2) : oneOf<int>({0, 3});
        const int64_t latency = anyLatency();
        const ar_model::Params params = anyParams();
        const OtherParams hidl = Params(params.numbers, params.name);
        const auto call = [this, caller](auto real, auto modelled) -> Step {
            return [=] { client(caller, real, modelled); };
        };
        switch (below(12)) {
            case 0:
                return call([=] { return act->flush(); }, [=] { return this->activity->flush(); });
            case 1:
                return call([=] { return env->initEnvironment(activity, hidl); },
                            [=] { return environment->init(activity, params); });
            case 2:
                return call([=] { return env->exitEnvironment(activity, hidl); },
                            [=] { return environment->exit(activity, params); });
            case 3:
                return call([=] { return env->enableEnvironment(activity, event, latency, hidl); },
                            [=] { return environment->enable(activity, event, latency, params); });
            case 4:
                return call([=] { return env->disableEnvironment(activity, event); },
                            [=] { return environment->disable(activity, event); });
            case 5:
            case 6:
            case 7:
                return call(
                        [=] { return act->enableActivityEvent(activity, event, latency); },
                        [=] { return this->activity->enable(caller, activity, event, latency); });
            case 8:
            case 9:
                return call(
                        [=] {
                            return act->enableActivityEventExtend(activity, event, latency, hidl);
                        },
                        [=] {
                            return this->activity->enableExtended(caller, activity, event, latency,
                                                                  params);
                        });
            default:
                return call([=] { return act->disableActivityEvent(activity, event); },
                            [=] { return this->activity->disable(caller, activity, event); });
        }
    }

    Step entering(Caller caller) {
        const bool v1_1 = below(2), null = below(20) == 0;
        memory = below(10) != 0;
        const Status link = below(6) ? Status::ok() : Status::fromStatusT(::android::DEAD_OBJECT);
        const auto script = [&](auto client) {
            client->link = link;
            client->linkAnswer = below(6) != 0;
            client->send = below(4) ? Status::ok() : Status::fromStatusT(::android::DEAD_OBJECT);
            return null ? nullptr : client;
        };
        if (below(3)) {
            const sp<Act1> c = script(anyOf(acts));
            return [=] {
                enterAs(caller, c, v1_1, *activity, Act::sharedRecipient(*act), [&] {
                    return v1_1 ? act->registerActivityCallbackV1_1(c)
                                : act->registerActivityCallback(c);
                });
            };
        }
        const sp<Env1> c = script(anyOf(envs));
        return [=] {
            enterAs(caller, c, v1_1, *environment, Env::sharedRecipient(*env), [&] {
                return v1_1 ? env->registerEnvironmentCallbackV1_1(c)
                            : env->registerEnvironmentCallback(c);
            });
        };
    }

    Step dying() {
        const uint64_t cookie = int64_t(*anyCaller());
        const bool exists = below(4), empty = below(2), isAct = below(2);
        const sp<Act1> a = exists ? anyOf(acts) : nullptr;
        const sp<Env1> e = exists ? anyOf(envs) : nullptr;
        return [=] { isAct ? die(cookie, a, empty) : die(cookie, e, empty); };
    }

    Step batch(Caller caller) {
        const bool null = below(30) == 0;
        const int count = below(12) ? 1 + below(8) : oneOf<int>({0, -1, 192, 193, INT32_MIN});
        std::vector<ar_model::Event> events;
        std::vector<activity_event> plains;
        std::vector<ar_context_event> contexts;
        for (int i = 0; i < std::max(count, 1); ++i) {
            events.push_back(
                    {uint32_t(below(4)), uint32_t(below(4)), anyTime(), uint32_t(below(99))});
            const auto& e = events.back();
            plains.push_back({e.type, e.activity, e.timestamp, e.extra, {}});
        }
        const int kind = below(4);
        for (auto& e : events) {
            if (kind < 2) continue;
            e.value = below(99);
            e.name = "e" + std::to_string(e.value);
            contexts.push_back(Context(e.type, e.activity, e.timestamp, e.extra, e.value, e.name));
        }
        return [=] {
            const auto* const model = null ? nullptr : events.data();
            const auto* const context = null ? nullptr : contexts.data();
            if (onModel) {
                if (kind < 2) activity->changed(caller, model, count);
                if (kind == 2) activity->extendChanged(model, count);
                if (kind == 3) environment->changed(model, count);
                return;
            }
            as(caller, [&] {
                if (kind < 2)
                    module.activity->activity_changed(null ? nullptr : plains.data(), count);
                if (kind == 2) module.activity->activity_extend_changed(context, count);
                if (kind == 3) module.environment->environment_changed(context, count);
            });
        };
    }

    // States that the operations never make, put into both.
    void seedTables() {
        const uint64_t pid = int64_t(*anyCaller());
        const uint32_t a = below(3), e = 1 + below(2);
        const int64_t n = anyTime();
        const auto client = below(2) ? anyOf(acts) : nullptr;
        const auto other = below(2) ? anyOf(envs) : nullptr;
        switch (below(8)) {
            case 0:
            case 1:
                Act::requests().push_back({pid, a, e, n, {}});
                activity->requests.push_back({pid, a, e, n});
                break;
            case 2:
            case 3:
                Act::barriers().push_back({pid, a, e, n});
                activity->barriers.push_back({pid, a, e, n});
                break;
            case 4:
                Act::lastEvents().push_back({pid, a, e, n, {}, 0});
                activity->lastEvents.push_back({pid, a, e, n});
                break;
            case 5:
                Act::natives(*act).push_back({pid, a, e, n, 0});
                activity->natives.push_back({pid, a, e, n, 0});
                break;
            case 6:
                (below(2) ? void(Act::clientsV1_1().add(client, pid))
                          : void(Act::clientsV1_0().add(client, pid)));
                activity->clientsV1_1 = Entries(Act::clientsV1_1());
                activity->clientsV1_0 = Entries(Act::clientsV1_0());
                break;
            default:
                (below(2) ? void(Env::clientsV1_1().add(other, pid))
                          : void(Env::clientsV1_0().add(other, pid)));
                environment->clientsV1_1 = Entries(Env::clientsV1_1());
                environment->clientsV1_0 = Entries(Env::clientsV1_0());
        }
    }

    // ---- One program.

    void start(unsigned seed) {
        random.seed(seed);
        make();
        const auto [onActivity, onEnvironment] = std::pair(module.activity, module.environment);
        const bool hasModule = seed % 8 != 0;
        if (!hasModule) make(nullptr, nullptr);
        module.activity = onActivity;  // they stay valid, whatever becomes of the object
        module.environment = onEnvironment;
        module.inside = [] { inside(Inside::kModule); };
        activity.emplace(*this, hasModule);
        environment.emplace(*this, hasModule);
        acts.clear();
        envs.clear();
        for (int i = 0; i < 7; ++i) add(acts, "a" + std::to_string(i));
        for (int i = 0; i < 4; ++i) add(envs, "e" + std::to_string(i));
        inside = [this](Inside place) {
            const char* const mark = place == Inside::kModule ? "module" : "client";
            onModel ? log('I', "inside", mark)
                    : void(__android_log_print(ANDROID_LOG_INFO, "inside", "%s", mark));
            // Once a client is being called, a batch would wait for itself.
            if (place == Inside::kClient) nested[0] = nullptr;
            Step& next = nested[place == Inside::kClient];
            if (next) std::exchange(next, nullptr)();
        };
    }
    template <typename C>
    static void add(Pool<C>& pool, const std::string& name) {
        const sp<C> client = new C(name);
        client->inside = [] { inside(Inside::kClient); };
        pool[uint64_t(client.get())] = client;
    }

    void run(int step) {
        module.results.clear();
        if (below(3) == 0)
            module.results[oneOf<std::string>({"enable", "extend", "disable", "flush", "init",
                                               "exit"})] = oneOf<int>({1, -1, 5});
        module.current.clear();
        for (int i = below(7); i > 0; --i) module.current.push_back(Context(1, 1, anyTime()));
        module.countOverride = below(4) ? INT32_MIN : oneOf<int>({0, -3});
        module.nullArrays = below(10) == 0;
        const Caller caller = below(10) ? anyCaller() : std::nullopt;
        const int kind = below(20);
        if (kind == 0) seedTables();
        const Step made = kind < 4    ? entering(caller)
                          : kind < 6  ? dying()
                          : kind < 13 ? clientCall(caller)
                                      : batch(caller);
        // From inside a client's callback clients call; from inside others the module reports, too.
        const Step fromClient = below(3) ? nullptr : clientCall(anyCaller());
        const Step fromOthers = below(3)   ? nullptr
                                : below(2) ? batch(anyCaller())
                                           : clientCall(anyCaller());
        for (bool model : {false, true}) {
            onModel = model;
            nested[0] = caller ? fromOthers : nullptr;
            nested[1] = caller ? fromClient : nullptr;
            made();
        }
        (void)step;
    }

    void compare() {
        ASSERT_EQ(TakeLog(), std::exchange(logged, {}));
        ASSERT_EQ(module.take(), std::exchange(calls, {}));
        ASSERT_EQ(TakeJournal(), std::exchange(journal, {}));
        ASSERT_EQ(Rows(Act::requests()), Rows(activity->requests));
        ASSERT_EQ(Rows(Act::natives(*act)), Rows(activity->natives));
        ASSERT_EQ(Rows(Act::barriers()), Rows(activity->barriers));
        ASSERT_EQ(Rows(Act::lastEvents()), Rows(activity->lastEvents));
        ASSERT_EQ(Rows(Act::reported()), Rows(activity->reported));
        ASSERT_EQ(Rows(Entries(Act::clientsV1_1())), Rows(activity->clientsV1_1));
        ASSERT_EQ(Rows(Entries(Act::clientsV1_0())), Rows(activity->clientsV1_0));
        ASSERT_EQ(Rows(Entries(Act::recipients(*act))), Rows(activity->recipientsV1_1));
        ASSERT_EQ(Rows(Entries(Env::clientsV1_1())), Rows(environment->clientsV1_1));
        ASSERT_EQ(Rows(Entries(Env::clientsV1_0())), Rows(environment->clientsV1_0));
        ASSERT_EQ(uint64_t(Act::sharedRecipient(*act).get()), activity->sharedRecipient);
        ASSERT_EQ(uint64_t(Env::sharedRecipient(*env).get()), environment->sharedRecipient);
    }

    std::mt19937 random;
    std::optional<ar_model::Activity> activity;
    std::optional<ar_model::Environment> environment;
    Pool<Act1> acts;
    Pool<Env1> envs;
    bool onModel = false;
    bool memory = true;
    uint64_t recipient = 0;  // that the next registration on the model makes
    Step nested[2];          // from inside others, from inside a client; the first to come runs it
    Lines logged, calls, journal;
};

TEST_F(ModelTest, AnyProgramRunsAsTheModelDoes) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        start(seed);
        for (int step = 0; step < 120; ++step) {
            SCOPED_TRACE(Joined(" ", "seed", seed, "step", step));
            run(step);
            compare();
            if (HasFailure()) return;
        }
    }
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
