// SPDX-License-Identifier: Apache-2.0
#include "ModelDriver.h"

#include <android/log.h>

#include <tuple>

#include "Dump.h"
#include "Harness.h"
#include "ar_model/Model.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {
namespace {

using ar_model::Caller;
using Asked = std::tuple<sp<ActivityInterface>, sp<EnvironmentInterface>>;

// What the library keeps and the module hands over, as the model has it.
ar_model::Params Ruled(const other_params& p) {
    return {{p.params[0], p.params[1], p.params[2], p.params[3]},
            std::string(p.name, strnlen(p.name, sizeof(p.name)))};
}
ar_model::Request Ruled(const EnableRequestData& r) {
    return {r.pid, r.activity, r.event, r.reportLatencyNs, Ruled(r.otherParams)};
}
ar_model::NativeEnable Ruled(const EnableToNativeData& n) {
    return {n.pid, n.activity, n.event, n.reportLatencyNs, n.noWake};
}
ar_model::Moment Ruled(const FirstReport& b) {
    return {b.pid, b.activity, b.event, b.timestamp};
}
ar_model::Moment Ruled(const EventResponseData& e) {
    return {e.pid, e.activity, e.event, e.timestamp};
}
ar_model::Event Ruled(const activity_event& e) {
    return {e.event_type, e.activity, e.timestamp, e.extra};
}
ar_model::Event Ruled(const ar_context_event& e) {
    const auto& d = e.context_data;
    const std::string name(e.name, strnlen(e.name, sizeof(e.name)));
    return {e.event_type, e.activity, e.timestamp, e.extra, e.value, {d[0], d[1], d[2], d[3]},
            name};
}
template <typename Records>
auto AllRuled(const Records& records) {
    std::vector<decltype(Ruled(*records.begin()))> all;
    for (const auto& record : records) all.push_back(Ruled(record));
    return all;
}

auto Values(const std::string& line) {
    return std::tie(line);
}
auto Values(const uint64_t& number) {
    return std::tie(number);
}
auto Values(const ar_model::Entry& e) {
    return std::tie(e.object, e.pid);
}
auto Values(const ar_model::Moment& m) {
    return std::tie(m.pid, m.activity, m.event, m.timestamp);
}
auto Values(const ar_model::NativeEnable& n) {
    return std::tie(n.pid, n.activity, n.event, n.latencyNs, n.noWake);
}
auto Values(const ar_model::Request& r) {
    const auto& [numbers, name] = r.params;
    return std::tie(r.pid, r.activity, r.event, r.latencyNs, numbers[0], numbers[1], numbers[2],
                    numbers[3], name);
}

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

// What a client gets of a record, in the version's form; as Harness.h writes it.
std::string Told(const ar_model::Event& e, bool plain, bool v1_1) {
    std::string text = "(" + Joined(",", e.type, e.activity, e.timestamp);
    if (v1_1) text += "," + std::to_string(e.extra);
    if (!plain) {
        text += "," + Joined(",", e.value, e.data[0], e.data[1], e.data[2], e.data[3], e.name);
    }
    return text + ")";
}
// One query: what it answers (nothing at all when it doesn't answer), and its texts.
struct Query {
    std::function<Lines(const Asked&)> ask;
    bool hasExtra;
    std::string unavailable;  // up to "interface"
    std::string wrongSize;    // up to the count
    std::string noMemory;     // of the queries for names alone
};
template <typename Object, typename Records>
auto Asking(Return<void> (Object::*method)(std::function<void(const Records&)>)) {
    return [method](const Asked& objects) {
        Lines answer;
        const auto keep = [&](const Records& records) {
            answer.push_back("answered");
            for (const auto& record : records) answer.push_back(Text(record));
        };
        Object& object = *std::get<sp<Object>>(objects);
        if (!(object.*method)(keep).isOk()) answer.push_back("failed");
        return answer;
    };
}
const Query kQueries[] = {
        {Asking(&ActivityInterface::getSupportedActivitiesList), false,
         "E AR_impl: getSupportedActivitiesList: mImpl ",
         "E AR_impl: getSupportedActivitiesList: can not get support activity, list_size(",
         "E AR_impl: getSupportedActivitiesList hidl string new failed"},
        {Asking(&EnvironmentInterface::getSupportedEnvironmentsList), false,
         "E AR_impl_Env: getSupportedEnvironmentsList: mImpl ",
         "E AR_impl_Env: getSupportedEnvironmentsList: can not get support env, list_size(",
         "E AR_impl_Env: env new failed"},
        {Asking(&ActivityInterface::getCurrentActivity), false,
         "E AR_impl: getCurrentActivity: mImpl V1_0 ",
         "E AR_impl: getCurrentActivity: mImpl V1_0 getCurrentActivity error size(", ""},
        {Asking(&ActivityInterface::getCurrentActivityV1_1), true,
         "E AR_impl: getCurrentActivityV1_1: mImpl V1_1 ",
         "E AR_impl: getCurrentActivityV1_1: mImpl V1_1 getCurrentActivity error size(", ""},
        {Asking(&EnvironmentInterface::getCurrentEnvironment), false,
         "E AR_impl_Env: getCurrentEnvironment: mImpl V1_0 ",
         "E AR_impl_Env: getCurrentEnvironment: mImpl V1_0 getCurrentENV error size(", ""},
        {Asking(&EnvironmentInterface::getCurrentEnvironmentV1_1), true,
         "E AR_impl_Env: getCurrentEnvironmentV1_1: mImpl V1_1 ",
         "E AR_impl_Env: getCurrentEnvironmentV1_1: mImpl V1_1 getCurrentEnvironment error size(",
         ""},
};

class ModelDriver : Objects, public ar_model::World {
  public:
    ModelDriver(Mix mix, const uint8_t* data, size_t size)
        : raw(mix == Mix::kModule), at(data), end(data + size) {
        start();
    }
    ~ModelDriver() override {
        inside = nullptr;
        module = {};
    }

    std::string firstDifference() {
        for (int step = 1; at < end; ++step) {
            run();
            // Changes nothing, whatever the tables hold.
            if (at >= end) Dump({"--json"}, act.get(), env.get());
            compare();
            if (!difference.empty()) return Joined(" ", "step", step, difference);
        }
        return "";
    }

  private:
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
        if (call.params) {
            const auto& [n, name] = *call.params;
            line += " [" + Joined(" ", n[0], n[1], n[2], n[3], "'" + name + "'") + "]";
        }
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
        answer.count = module.count(answer.times.size());
        if (module.nullArrays) answer.times.clear();
        return answer;
    }
    bool deliver(uint64_t to, const std::string& method,
                 const std::vector<ar_model::Event>& events) override {
        const bool v1_1 = method.find("V1_1") != std::string::npos;
        const bool plain = method.find("onActivityChanged") == 0;
        return with(to, [&](auto& client) {
            std::string line = client.name + (plain ? " plain" : " extended");
            for (const auto& e : events) line += " " + Told(e, plain, v1_1);
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

    int below(unsigned n) { return at < end ? int(*at++ % n) : 0; }
    // Any bytes, while there are some.
    template <typename Record>
    void fill(Record* record) {
        const size_t n = std::min<size_t>(sizeof(*record), end - at);
        memcpy(static_cast<void*>(record), at, n);
        at += n;
    }
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
    // Of which the others of a list are repetitions.
    int freshRecords() const { return raw ? 2 : 8; }
    int anyResult() {
        int result = oneOf<int>({1, -1, 5});
        if (raw) fill(&result);
        return result;
    }
    template <typename Record>
    Record anyBytes(Record record) {
        if (!raw) return record;
        fill(&record);
        record.event_type %= 4;
        record.activity %= 4;
        return record;
    }
    activity_event anyPlain() {
        const uint32_t type = below(4);
        return anyPlain(type, below(4));
    }
    activity_event anyPlain(uint32_t type, uint32_t activity) {
        const int64_t time = anyTime();
        return anyBytes(activity_event{type, activity, time, uint32_t(below(99)), {}});
    }
    ar_context_event anyContext() {
        ar_context_event e = Context(below(4), 0, 0, 0, 0, "e");
        e.activity = below(4);
        e.timestamp = anyTime();
        e.extra = below(99);
        e.value = below(99);
        return anyBytes(e);
    }
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
            if (!as(caller, [&] { return registerAs(null ? nullptr : client); }).isOk()) {
                Note("failed");
            }
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
        const bool fits = count >= 1 && count <= 192;  // or there is nothing to read
        std::vector<activity_event> plains;
        std::vector<ar_context_event> contexts;
        for (int i = 0; fits && i < count; ++i) {
            const bool again = i >= freshRecords();
            if (plain) {
                plains.push_back(again ? plains[i % freshRecords()] : anyPlain());
            } else {
                contexts.push_back(again ? contexts[i % freshRecords()] : anyContext());
            }
        }
        const auto events = plain ? AllRuled(plains) : AllRuled(contexts);
        return [=] {
            if (onModel) {
                const ar_model::Event none{};  // what is not there is not looked at
                const auto* const all = null ? nullptr : fits ? events.data() : &none;
                if (plain) return model->changed(caller, all, count);
                return kind == 2 ? model->extendChanged(all, count) : envModel->changed(all, count);
            }
            as(caller, [&] {
                const auto handedPlains = Exactly(plains);
                const auto handedContexts = Exactly(contexts);
                const auto* const all = null ? nullptr : handedContexts.get();
                const auto* const plainOnes = null ? nullptr : handedPlains.get();
                if (plain) return module.activity->activity_changed(plainOnes, count);
                kind == 2 ? module.activity->activity_extend_changed(all, count)
                          : module.environment->environment_changed(all, count);
            });
        };
    }

    Step asking() {
        const int which = below(std::size(kQueries));
        const bool memory = !rarely(4);
        Lines& names = module.names;
        for (int i = module.countOverride ? 0 : below(4); i > 0; --i) {
            const size_t length = below(40);
            names.emplace_back(length, char('a' + below(26)));
        }
        return [=] {
            const Query& query = kQueries[which];
            if (!onModel) {
                WithoutMemory::active = !memory;
                for (const auto& line : query.ask({act, env})) Note(line);
                WithoutMemory::active = false;
                return;
            }
            const auto refused = [&](const std::string& text) { logged.push_back(text); };
            const bool forNames = !query.noMemory.empty();
            if (!hasModule) {
                refused(query.unavailable + "interface is not available");
                return journal.push_back("answered");
            }
            if (!forNames) inside(false);
            const int count = module.count(forNames ? module.names.size() : module.current.size());
            if (count < 1 || (!forNames && count > 5) || module.nullArrays) {
                refused(query.wrongSize + std::to_string(count) + ")");
                return journal.push_back("answered");
            }
            if (forNames && !memory) return refused(query.noMemory);
            journal.push_back("answered");
            for (int i = 0; i < count; ++i) {
                journal.push_back(forNames ? module.names[i]
                                           : Told(Ruled(module.current[i]), false, query.hasExtra));
            }
        };
    }

    // A batch with the calls of others between its records.
    Step interruptedBatch() {
        const int32_t pid = *anyCaller();
        std::vector<activity_event> plains;
        const uint32_t activity = below(3);
        for (int i = below(12); i >= 0; --i) {
            const uint32_t other = rarely(3) ? below(4) : activity;
            plains.push_back(anyPlain(rarely(9) ? 0 : 1 + below(2), other));
        }
        const auto events = AllRuled(plains);
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

    void start() {
        mixed = !rarely(3);
        hasModule = raw || !rarely(8);
        const auto [onActivity, onEnvironment] = std::pair(module.activity, module.environment);
        if (!hasModule) make(nullptr, nullptr);
        module.activity = onActivity;  // valid whatever becomes of the object
        module.environment = onEnvironment;
        module.inside = [] { inside(false); };
        model.emplace(*this, hasModule);
        envModel.emplace(*this, hasModule);
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

    int refusedCount() {
        int count = oneOf<int>({0, -3});
        if (raw) fill(&count);
        return count > 0 ? -count : count;
    }

    void run() {
        module.results.clear();
        const std::string slot =
                oneOf<std::string>({"enable", "extend", "disable", "flush", "init", "exit"});
        if (rarely(3)) module.results[slot] = anyResult();
        module.countOverride = rarely(4) ? std::optional<int>(refusedCount()) : std::nullopt;
        module.nullArrays = rarely(10);
        module.names.clear();
        module.current.clear();
        int current = module.countOverride ? 0 : below(7);
        if (raw && !module.countOverride && rarely(6)) current = 300;  // a barrier takes any
        for (int i = 0; i < current; ++i) {
            module.current.push_back(i >= freshRecords() ? module.current[i % freshRecords()]
                                     : raw               ? anyContext()
                                                         : Context(1, 1, anyTime()));
        }
        if (rarely(10)) seedTables();

        const Caller caller = rarely(10) ? std::nullopt : anyCaller();
        const int kind = below(20);
        const Step step = kind < (raw ? 2 : 4)     ? anyEntering(caller)
                          : kind < (raw ? 2 : 6)   ? dying()
                          : kind < (raw ? 7 : 11)  ? clientCall(caller)
                          : kind < (raw ? 8 : 13)  ? interruptedBatch()
                          : kind < (raw ? 14 : 15) ? asking()
                                                   : batch(caller);
        // From inside its callback a client calls; from inside others the module reports, too.
        const Step fromClient = rarely(3) ? clientCall(anyCaller()) : nullptr;
        const bool reports = below(2);
        const Step fromOthers = below(3)  ? nullptr
                                : reports ? batch(below(2) ? caller : anyCaller())
                                          : clientCall(anyCaller());
        for (const bool now : {false, true}) {
            onModel = now;
            nested[0] = caller ? fromOthers : nullptr;
            nested[1] = caller ? fromClient : nullptr;
            step();
            if (fromOthers && reports) fromOthers();  // where it led before may have changed
        }
    }

    template <typename Record>
    void same(const char* what, const std::vector<Record>& library,
              const std::vector<Record>& rules) {
        const auto alike = [](const Record& a, const Record& b) { return Values(a) == Values(b); };
        if (!difference.empty()) return;
        if (std::equal(library.begin(), library.end(), rules.begin(), rules.end(), alike)) return;
        difference = what;
        for (const auto* records : {&library, &rules}) {
            difference += records == &library ? "\nThe library:" : "\nThe model:";
            for (const Record& record : *records) {
                const auto join = [](const auto&... values) { return Joined(" ", values...); };
                difference += "\n    " + std::apply(join, Values(record));
            }
        }
    }

    void compare() {
        same("log", TakeLog(), std::exchange(logged, {}));
        same("native calls", module.take(), std::exchange(calls, {}));
        same("journal", TakeJournal(), std::exchange(journal, {}));
        same("requests", AllRuled(Act::requests()), model->requests);
        for (uint32_t a = 0; a < 3; ++a) {
            const auto merge = [](const EnableRequestTable::Merge& m) {
                return Lines{Joined(" ", m.remains, m.allExtended, Text(m.noWakeParams))};
            };
            same("merge", merge(Act::requests().merge(a, 1)), merge(Act::merge(a, 1)));
        }
        same("natives", AllRuled(Act::natives(*act)), model->natives);
        same("barriers", AllRuled(Act::barriers()), model->barriers);
        same("last events", AllRuled(Act::lastEvents()), model->lastEvents);
        same("reported", {Act::reported().begin(), Act::reported().end()}, model->reported);
        same("clients 1.1", Entries(Act::clientsV1_1()), model->clientsV1_1);
        same("clients 1.0", Entries(Act::clientsV1_0()), model->clientsV1_0);
        same("recipients", Entries(Act::recipients(*act)), model->recipientsV1_1);
        same("environment 1.1", Entries(Env::clientsV1_1()), envModel->clientsV1_1);
        same("environment 1.0", Entries(Env::clientsV1_0()), envModel->clientsV1_0);
        same<uint64_t>("shared recipients",
                       {uint64_t(Act::sharedRecipient(*act).get()),
                        uint64_t(Env::sharedRecipient(*env).get())},
                       {model->sharedRecipient, envModel->sharedRecipient});
    }

    const bool raw;  // what the module hands over
    const uint8_t* at;
    const uint8_t* const end;
    std::string difference;
    std::optional<ar_model::Activity> model;
    std::optional<ar_model::Environment> envModel;
    Pool<Act1> acts;
    Pool<Env1> envs;
    bool onModel = false;
    bool mixed = true;  // plain enables, too
    bool hasModule = true;
    bool memory = true;
    uint64_t recipient = 0;  // that the next registration on the model makes
    std::function<void()> between = [] {};
    Step nested[2];  // from inside others, from inside a client; the first to come runs it
    Lines logged, calls, journal;
};

}  // namespace

std::string FirstDifference(Mix mix, const uint8_t* data, size_t size) {
    return ModelDriver(mix, data, size).firstDifference();
}

}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
