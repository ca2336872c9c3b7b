// Random programs drive the library and the model of its rules side by side. After every step all
// that shows is the same: log, native calls, what clients got, results, tables.
#include <android/log.h>

#include <random>
#include <tuple>

#include "Harness.h"
#include "ar_model/Model.h"

// The model's records as the Harness writes the library's.
namespace ar_model {

using vendor::zaltho::hardware::activity_recognition::V1_1::implementation::Joined;

static std::string Text(const Params& p) {
    const auto& n = p.numbers;
    return "[" + Joined(" ", n[0], n[1], n[2], n[3], "'" + p.name + "'") + "]";
}
static std::string Text(const Request& r) {
    return Joined(" ", r.pid, r.activity, r.event, r.latencyNs);
}
static std::string Text(const NativeEnable& n) {
    return Joined(" ", n.pid, n.activity, n.event, n.latencyNs, n.noWake);
}
static std::string Text(const Moment& m) {
    return Joined(" ", m.pid, m.activity, m.event, m.timestamp);
}
static std::string Text(const Entry& e) {
    return Joined(" ", e.object, e.pid);
}

}  // namespace ar_model

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

using ar_model::Caller;
using Pids = std::vector<uint64_t>;

const std::vector<int64_t> kEdges = {INT64_MIN, -5000000000, -1,       0,
                                     999999999, 2500000000,  INT64_MAX};

// Called wherever the library or the model may be called back: a client's event call, or others.
std::function<void(bool inClient)> inside;

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
        inside(false);
        return true;  // and does not hold on to it, which holds the object
    }
};
using Act1 = Linked<ActClient1>;
using Env1 = Linked<EnvClient1>;
template <typename C>
using Pool = std::map<uint64_t, sp<C>>;  // by address, so that a seed means the same in every run

template <typename C>
std::vector<ar_model::Entry> Entries(const ClientTable<C>& table) {
    std::vector<ar_model::Entry> entries;
    for (size_t i = 0; i < table.size(); ++i) {
        entries.push_back({uint64_t(table.keyAt(i).get()), table.valueAt(i)});
    }
    return entries;
}
template <typename R>
std::vector<ar_model::Entry> Entries(const std::set<std::pair<unsigned long, sp<R>>>& table) {
    std::vector<ar_model::Entry> entries;
    for (const auto& [pid, recipient] : table) {
        ar_model::Side::enter(entries, {uint64_t(recipient.get()), pid});
    }
    return entries;
}

class ModelTest : public ObjectTest, public ar_model::World {
  protected:
    // Runs on the library or on the model, as onModel says.
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
        if (call.params) line += " " + Text(*call.params);
        calls.push_back(line);
        inside(false);
        const auto result = module.results.find(slot);
        return result == module.results.end() ? 0 : result->second;
    }
    void betweenRecords() override { between(); }
    ar_model::Snapshot currentActivity() override {
        inside(false);
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
            inside(true);
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
            inside(false);
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

    int below(unsigned n) { return int(random() % n); }
    bool rarely(unsigned n) { return below(n) == 0; }
    template <typename T>
    T oneOf(const std::vector<T>& values) {
        return values[below(values.size())];
    }
    template <typename C>
    sp<C> anyOf(const Pool<C>& pool) {
        return std::next(pool.begin(), below(pool.size()))->second;
    }
    Caller anyCaller() { return oneOf<Caller>({0, -1, 1, 2, 3, 4}); }
    int64_t anyTime() { return rarely(6) ? oneOf(kEdges) : below(30) - 5; }
    int64_t anyLatency() { return rarely(2) ? oneOf(kEdges) : below(9) * 1000000000ll; }
    ar_model::Params anyParams() {
        const auto numbers = oneOf<std::array<double, 4>>({{1, 0, 0, 0},
                                                           {1, -0.0, 0, 0},
                                                           {1, 0, 0, 0.5},
                                                           {2, 0, 0, 0},
                                                           {mixed ? 0. : 1., 5, 0, 0}});
        return {numbers, rarely(8) ? std::string(oneOf<int>({31, 32, 33}), 'x')
                                   : "n" + std::to_string(below(9))};
    }

    // What a client may do from inside its callback.
    Step clientCall(Caller caller) {
        const int slot = below(14);
        uint32_t id = below(3), event = rarely(10) ? oneOf<int>({0, 3}) : 1 + below(2);
        const auto& standing = model->requests;
        if (slot >= 10 && !standing.empty() && below(4)) {  // or disables would seldom find theirs
            const auto& request = oneOf(standing);
            std::tie(caller, id, event) = std::tuple(request.pid, request.activity, request.event);
        }
        const int64_t latency = anyLatency();
        const ar_model::Params params = anyParams();
        const OtherParams hidl = Params(params.numbers, params.name);
        const bool extended = slot >= 7 || !mixed;
        const auto onLibrary = [=]() -> Return<int32_t> {
            if (slot == 0) return act->flush();
            if (slot == 1) return env->initEnvironment(id, hidl);
            if (slot == 2) return env->exitEnvironment(id, hidl);
            if (slot == 3) return env->enableEnvironment(id, event, latency, hidl);
            if (slot == 4) return env->disableEnvironment(id, event);
            if (slot >= 10) return act->disableActivityEvent(id, event);
            if (extended) return act->enableActivityEventExtend(id, event, latency, hidl);
            return act->enableActivityEvent(id, event, latency);
        };
        const auto onTheModel = [=] {
            if (slot == 0) return model->flush();
            if (slot == 1) return envModel->init(id, params);
            if (slot == 2) return envModel->exit(id, params);
            if (slot == 3) return envModel->enable(id, event, latency, params);
            if (slot == 4) return envModel->disable(id, event);
            if (slot >= 10) return model->disable(caller, id, event);
            if (extended) return model->enableExtended(caller, id, event, latency, params);
            return model->enable(caller, id, event, latency);
        };
        return [=] {
            if (onModel) return journal.push_back("= " + std::to_string(onTheModel()));
            Note("= " + std::to_string(int32_t(as(caller, onLibrary))));
        };
    }

    template <typename C, typename SideModel, typename Register, typename Shared>
    Step entering(Caller caller, const sp<C>& client, SideModel& to, bool v1_1, Shared& shared,
                  Register registerAs) {
        const bool null = rarely(20), dead = rarely(6);
        memory = !rarely(10);
        client->link = Status::fromStatusT(dead ? ::android::DEAD_OBJECT : ::android::OK);
        client->linkAnswer = !rarely(6);
        client->send = Status::fromStatusT(rarely(4) ? ::android::DEAD_OBJECT : ::android::OK);
        const auto links = client->recipients.size();
        return [=, &to, &shared] {
            const uint64_t callback = null ? 0 : uint64_t(client.get());
            if (onModel) {
                return v1_1 ? to.registerV1_1(caller, callback) : to.registerV1_0(caller, callback);
            }
            WithoutMemory::active = !memory;
            EXPECT_TRUE(as(caller, [&] { return registerAs(null ? nullptr : client); }).isOk());
            WithoutMemory::active = false;
            // The library's turn comes first, and shows which recipient it made.
            const bool linked = client->recipients.size() > links;
            recipient = linked ? uint64_t(client->recipients.back().unsafe_get())
                               : std::max<uint64_t>(uint64_t(shared.get()), 1);
        };
    }
    Step anyEntering(Caller caller) {
        const bool v1_1 = below(2);
        if (below(3)) {
            return entering(caller, anyOf(acts), *model, v1_1, Act::sharedRecipient(*act),
                            [=](const sp<Act1>& c) {
                                return v1_1 ? act->registerActivityCallbackV1_1(c)
                                            : act->registerActivityCallback(c);
                            });
        }
        return entering(caller, anyOf(envs), *envModel, v1_1, Env::sharedRecipient(*env),
                        [=](const sp<Env1>& c) {
                            return v1_1 ? env->registerEnvironmentCallbackV1_1(c)
                                        : env->registerEnvironmentCallback(c);
                        });
    }

    Step dying() {
        const uint64_t cookie = int64_t(*anyCaller());
        const bool isAct = below(2);
        const sp<IBase> client = isAct ? sp<IBase>(anyOf(acts)) : sp<IBase>(anyOf(envs));
        wp<IBase> who = client;
        ar_model::Who modelWho = {uint64_t(client.get()), true};
        if (rarely(4)) std::tie(who, modelWho) = std::tuple(wp<IBase>(), ar_model::Who());
        if (rarely(6)) {  // no longer promotable: it stands in no table, and no number is its
            who = sp<IBase>(new Act1("gone"));
            modelWho = {~0ull, false};
        }
        return [=] {
            if (isAct)
                onModel ? model->died(cookie, modelWho) : act->HandleHidlDeath(cookie, who);
            else
                onModel ? envModel->died(cookie, modelWho) : env->HandleHidlDeath(cookie, who);
        };
    }

    Step batch(Caller caller) {
        const int kind = below(4);
        const bool plain = kind < 2, null = rarely(30);
        const int count = rarely(12) ? oneOf<int>({0, -1, 192, 193, INT32_MIN}) : 1 + below(8);
        std::vector<ar_model::Event> events(std::max(count, 1));
        std::vector<activity_event> plains;
        std::vector<ar_context_event> contexts;
        for (auto& e : events) {
            e = {uint32_t(below(4)), uint32_t(below(4)), anyTime(), uint32_t(below(99))};
            if (!plain) std::tie(e.value, e.name) = std::tuple(below(99), "e");
            plains.push_back({e.type, e.activity, e.timestamp, e.extra, {}});
            contexts.push_back(Context(e.type, e.activity, e.timestamp, e.extra, e.value, e.name));
        }
        return [=] {
            if (onModel) {
                const auto* const all = null ? nullptr : events.data();
                if (plain) return model->changed(caller, all, count);
                return kind == 2 ? model->extendChanged(all, count) : envModel->changed(all, count);
            }
            as(caller, [&] {
                const auto* const all = null ? nullptr : contexts.data();
                const auto* const plainOnes = null ? nullptr : plains.data();
                if (plain) return module.activity->activity_changed(plainOnes, count);
                kind == 2 ? module.activity->activity_extend_changed(all, count)
                          : module.environment->environment_changed(all, count);
            });
        };
    }

    // A batch with the calls of others between its records.
    Step interruptedBatch() {
        const int32_t pid = *anyCaller();
        std::vector<ar_model::Event> events(1 + below(12));
        std::vector<activity_event> plains;
        const uint32_t activity = below(3);
        for (auto& e : events) {
            const uint32_t other = rarely(3) ? below(4) : activity;
            e = {uint32_t(rarely(9) ? 0 : 1 + below(2)), other, anyTime(), uint32_t(below(99))};
            plains.push_back({e.type, e.activity, e.timestamp, e.extra, {}});
        }
        std::vector<Step> calls(events.size());
        for (Step& call : calls) call = rarely(3) ? clientCall(anyCaller()) : Step([] {});
        return [=] {
            size_t next = 0;
            nested[0] = nullptr;  // a batch would wait for this one
            between = [&] { calls[next++](); };
            if (!onModel) {
                Act::deliver(plains, pid, between);
            } else {
                model->changed(pid, events.data(), int(events.size()));
                logged.erase(logged.begin());
                logged.pop_back();
            }
            between = [] {};
        };
    }

    // States that the operations never make, put into both.
    void seedTables() {
        const uint64_t pid = int64_t(*anyCaller());
        const uint32_t a = below(3), e = 1 + below(2);
        const int64_t n = anyTime();
        switch (below(6)) {
            case 0:
                Act::requests().push_back({pid, a, e, n, {{1, 0, 0, 0}, "twin"}});
                return model->requests.push_back({pid, a, e, n, {{1, 0, 0, 0}, "twin"}});
            case 1:
                Act::barriers().push_back({pid, a, e, n});
                return model->barriers.push_back({pid, a, e, n});
            case 2:
                Act::lastEvents().push_back({pid, a, e, n, {}, 0});
                return model->lastEvents.push_back({pid, a, e, n});
            case 3:
                Act::natives(*act).push_back({pid, a, e, n, 0});
                return model->natives.push_back({pid, a, e, n, 0});
            case 4:
                Act::clientsV1_1().add(below(2) ? anyOf(acts) : nullptr, pid);
                Act::clientsV1_0().add(below(2) ? anyOf(acts) : nullptr, pid);
                break;
            default:
                Env::clientsV1_1().add(below(2) ? anyOf(envs) : nullptr, pid);
                Env::clientsV1_0().add(below(2) ? anyOf(envs) : nullptr, pid);
        }
        model->clientsV1_1 = Entries(Act::clientsV1_1());
        model->clientsV1_0 = Entries(Act::clientsV1_0());
        envModel->clientsV1_1 = Entries(Env::clientsV1_1());
        envModel->clientsV1_0 = Entries(Env::clientsV1_0());
    }

    // ---- One program.

    void start(unsigned seed) {
        random.seed(seed);
        mixed = seed % 3 != 0;
        make();
        const auto [onActivity, onEnvironment] = std::pair(module.activity, module.environment);
        const bool hasModule = seed % 8 != 0;
        if (!hasModule) make(nullptr, nullptr);
        module.activity = onActivity;  // valid whatever becomes of the object
        module.environment = onEnvironment;
        module.inside = [] { inside(false); };
        model.emplace(*this, hasModule);
        envModel.emplace(*this, hasModule);
        acts.clear();
        envs.clear();
        while (acts.size() < 7) add<Act1>(acts);
        while (envs.size() < 4) add<Env1>(envs);
        inside = [this](bool client) {
            // In the log this shows the order of everything.
            const char* const mark = client ? "client" : "other";
            if (onModel)
                log('I', "inside", mark);
            else
                __android_log_print(ANDROID_LOG_INFO, "inside", "%s", mark);
            // Once a client is being called, a batch would wait for itself.
            if (client) nested[0] = nullptr;
            if (nested[client]) std::exchange(nested[client], nullptr)();
        };
    }
    template <typename C>
    static void add(Pool<C>& pool) {
        const sp<C> client =
                new C((std::is_same_v<C, Act1> ? "a" : "e") + std::to_string(pool.size()));
        client->inside = [] { inside(true); };
        pool[uint64_t(client.get())] = client;
    }

    void run() {
        module.results.clear();
        const std::string slot =
                oneOf<std::string>({"enable", "extend", "disable", "flush", "init", "exit"});
        if (rarely(3)) module.results[slot] = oneOf<int>({1, -1, 5});
        module.current.clear();
        for (int i = below(7); i > 0; --i) module.current.push_back(Context(1, 1, anyTime()));
        module.countOverride = rarely(4) ? oneOf<int>({0, -3}) : INT32_MIN;
        module.nullArrays = rarely(10);
        if (rarely(10)) seedTables();

        const Caller caller = rarely(10) ? std::nullopt : anyCaller();
        const int kind = below(20);
        const Step step = kind < 4    ? anyEntering(caller)
                          : kind < 6  ? dying()
                          : kind < 12 ? clientCall(caller)
                          : kind < 14 ? interruptedBatch()
                                      : batch(caller);
        // From inside its callback a client calls; from inside others the module reports, too.
        const Step fromClient = rarely(3) ? clientCall(anyCaller()) : nullptr;
        const Step fromOthers = below(3)   ? nullptr
                                : below(2) ? batch(anyCaller())
                                           : clientCall(anyCaller());
        for (const bool now : {false, true}) {
            onModel = now;
            nested[0] = caller ? fromOthers : nullptr;
            nested[1] = caller ? fromClient : nullptr;
            step();
        }
    }

    void compare() {
        ASSERT_EQ(TakeLog(), std::exchange(logged, {}));
        ASSERT_EQ(module.take(), std::exchange(calls, {}));
        ASSERT_EQ(TakeJournal(), std::exchange(journal, {}));
        ASSERT_EQ(Texts(Act::requests()), Texts(model->requests));
        for (uint32_t a = 0; a < 3; ++a) {
            const auto kept = Act::requests().merge(a, 1), walked = Act::merge(a, 1);
            ASSERT_EQ(kept.remains, walked.remains);
            ASSERT_EQ(kept.allExtended, walked.allExtended);
            ASSERT_EQ(memcmp(&kept.noWakeParams, &walked.noWakeParams, sizeof(other_params)), 0);
        }
        ASSERT_EQ(Texts(Act::natives(*act)), Texts(model->natives));
        ASSERT_EQ(Texts(Act::barriers()), Texts(model->barriers));
        ASSERT_EQ(Texts(Act::lastEvents()), Texts(model->lastEvents));
        ASSERT_EQ(Pids(Act::reported().begin(), Act::reported().end()), model->reported);
        ASSERT_EQ(Texts(Entries(Act::clientsV1_1())), Texts(model->clientsV1_1));
        ASSERT_EQ(Texts(Entries(Act::clientsV1_0())), Texts(model->clientsV1_0));
        ASSERT_EQ(Texts(Entries(Act::recipients(*act))), Texts(model->recipientsV1_1));
        ASSERT_EQ(Texts(Entries(Env::clientsV1_1())), Texts(envModel->clientsV1_1));
        ASSERT_EQ(Texts(Entries(Env::clientsV1_0())), Texts(envModel->clientsV1_0));
        ASSERT_EQ(uint64_t(Act::sharedRecipient(*act).get()), model->sharedRecipient);
        ASSERT_EQ(uint64_t(Env::sharedRecipient(*env).get()), envModel->sharedRecipient);
    }

    std::mt19937 random;
    std::optional<ar_model::Activity> model;
    std::optional<ar_model::Environment> envModel;
    Pool<Act1> acts;
    Pool<Env1> envs;
    bool onModel = false;
    bool mixed = true;  // plain enables, too
    bool memory = true;
    uint64_t recipient = 0;  // that the next registration on the model makes
    std::function<void()> between = [] {};
    Step nested[2];  // from inside others, from inside a client; the first to come runs it
    Lines logged, calls, journal;
};

TEST_F(ModelTest, AnyProgramRunsAsTheModelDoes) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        start(seed);
        for (int step = 0; step < 120; ++step) {
            SCOPED_TRACE(Joined(" ", "seed", seed, "step", step));
            run();
            compare();
            if (HasFailure()) return;
        }
    }
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
