// SPDX-License-Identifier: Apache-2.0
// What the implementation library must do, written to be read: every operation from top to bottom,
// over plain vectors that are searched from the front. Shares nothing with the library, so that a
// mistake in either shows when both are driven alike. Slow, and without locks.
//
// Left out: making and dropping the objects, and the queries, which only hand on what the module
// says.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ar_model {

// A client's callback object. The tables are ordered by it; 0 is NULL.
using Callback = uint64_t;
// A death recipient; 0 is NULL.
using Recipient = uint64_t;
// The process id of the calling thread's caller; none: the thread has no binder state.
using Caller = std::optional<int32_t>;

struct Params {
    std::array<double, 4> numbers{};
    std::string name;
};

// A native record, and what a client gets of it: plain events have no value, data and name, version
// 1.0 clients get no extra. What is not there is zero.
struct Event {
    uint32_t type;
    uint32_t activity;
    int64_t timestamp;
    uint32_t extra = 0;
    uint32_t value = 0;
    std::array<uint64_t, 4> data{};
    std::string name{};
};

// A call of one of the module's slots, with the arguments that the slot has.
struct NativeCall {
    const char* slot;
    std::optional<uint32_t> id{};  // of the activity or the environment
    std::optional<uint32_t> event{};
    std::optional<int64_t> latencyNs{};
    std::optional<Params> params{};
};

// The module's answer for its current state; times: of its records, empty for a NULL array.
struct Snapshot {
    int32_t count = 0;
    std::vector<int64_t> times{};
};

enum class Link { kLinked, kRefused, kFailed };
struct LinkAnswer {
    Link link = Link::kLinked;
    std::string why{};  // it failed
};

// Whom a death notice is about. An empty one: no object, not promotable.
struct Who {
    Callback object = 0;
    bool promotable = false;
};

// Everything that is not the library. It may call the model back from inside each of these.
class World {
  public:
    virtual ~World() = default;
    // Between the records of a batch of plain events others' enables and disables get in.
    virtual void betweenRecords() {}
    virtual int32_t call(const NativeCall& call) = 0;
    virtual Snapshot currentActivity() = 0;
    // The method of the client's callback interface. False: the transport failed.
    virtual bool deliver(Callback to, const std::string& method,
                         const std::vector<Event>& events) = 0;
    // 0 when memory is short.
    virtual Recipient newRecipient() = 0;
    virtual LinkAnswer link(Callback to, Recipient recipient, uint64_t cookie) = 0;
    virtual void unlink(Callback from, Recipient recipient) = 0;
    virtual void log(char level, const std::string& tag, const std::string& text) = 0;
};

// A client, or the recipient of one.
struct Entry {
    uint64_t object;
    uint64_t pid;
};
struct Request {
    uint64_t pid;
    uint32_t activity;
    uint32_t event;
    int64_t latencyNs;
    Params params{};
};
struct NativeEnable {
    uint64_t pid;
    uint32_t activity;
    uint32_t event;
    int64_t latencyNs;
    uint32_t noWake;
};
// A barrier, or the last event of a client.
struct Moment {
    uint64_t pid;
    uint32_t activity;
    uint32_t event;
    int64_t timestamp;
};

// What both sides do alike.
class Side {
  public:
    // In the order of the objects, each once, which enter() keeps.
    std::vector<Entry> clientsV1_1;
    std::vector<Entry> clientsV1_0;
    Recipient sharedRecipient = 0;

    static void enter(std::vector<Entry>& table, const Entry& entry);

  protected:
    Side(World& world, const char* tag, bool hasModule)
        : mWorld(world), mTag(tag), mHasModule(hasModule) {}

    struct RegistrationTexts {
        const char *noMemory, *noCaller, *known, *failed, *refused, *linked;
    };
    void registerFirst(Caller caller, Callback callback, std::vector<Entry>& clients,
                       uint64_t pidWithoutCaller, const RegistrationTexts& texts);
    std::optional<uint64_t> leave(std::vector<Entry>& clients, Callback who, const char* text);
    void broadcast(const std::vector<Entry>& clients, const char* method,
                   const std::vector<Event>& events, const char* nullText, const char* failedText,
                   const char* operation);
    static std::vector<Event> withoutExtra(std::vector<Event> events);
    void say(char level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    World& mWorld;
    const char* const mTag;
    const bool mHasModule;
};

// Results: 0 or 1.
class Activity : public Side {
  public:
    explicit Activity(World& world, bool hasModule = true) : Side(world, "AR_impl", hasModule) {}

    // The clients' calls.
    void registerV1_0(Caller caller, Callback callback);
    void registerV1_1(Caller caller, Callback callback);
    int32_t enable(Caller caller, uint32_t activity, uint32_t event, int64_t latencyNs);
    int32_t enableExtended(Caller caller, uint32_t activity, uint32_t event, int64_t latencyNs,
                           const Params& params);
    int32_t disable(Caller caller, uint32_t activity, uint32_t event);
    int32_t flush();
    // The death notice.
    void died(uint64_t cookie, Who who);
    // The module's callbacks.
    void changed(Caller thread, const Event* events, int32_t count);
    void extendChanged(const Event* events, int32_t count);

    std::vector<Entry> recipientsV1_1;
    std::vector<Request> requests;
    std::vector<NativeEnable> natives;
    std::vector<Moment> barriers;
    std::vector<Moment> lastEvents;
    std::vector<uint64_t> reported;  // processes that ever had a routed event

  private:
    struct Routed {
        uint64_t pid;
        Event event;
    };

    int64_t merged(uint32_t activity, uint32_t event) const;
    int32_t enableExtendedNative(uint32_t activity, uint32_t event, int64_t latencyNs,
                                 const Params& params);
    void takeFirstReport(uint64_t pid, uint32_t activity, uint32_t event);
    int32_t remerge(uint32_t activity, uint32_t event);
    void route(Caller thread, const Event& event, const Request& request,
               std::vector<Routed>& batch);
    void report(const std::vector<Routed>& batch);
};

class Environment : public Side {
  public:
    explicit Environment(World& world, bool hasModule = true)
        : Side(world, "AR_impl_Env", hasModule) {}

    void registerV1_0(Caller caller, Callback callback);
    void registerV1_1(Caller caller, Callback callback);
    int32_t init(uint32_t environment, const Params& params);
    int32_t exit(uint32_t environment, const Params& params);
    int32_t enable(uint32_t environment, uint32_t event, int64_t latencyNs, const Params& params);
    int32_t disable(uint32_t environment, uint32_t event);
    void died(uint64_t cookie, Who who);
    void changed(const Event* events, int32_t count);

  private:
    int32_t pass(const NativeCall& call, const char* refused, const char* method);
};

}  // namespace ar_model
