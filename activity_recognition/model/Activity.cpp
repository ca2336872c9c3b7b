// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "ar_model/Model.h"

namespace ar_model {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr int64_t kNoWakeLatencyNs = 604'800'000'000'000;

uint64_t pidOf(Caller caller) {
    return int64_t(caller.value_or(0));
}

bool validEvent(uint32_t event) {
    return event == 1 || event == 2;
}

// Whole seconds, at least one. Unsigned: a negative latency is a huge one.
int64_t rounded(int64_t latencyNs) {
    const uint64_t latency = uint64_t(latencyNs);
    return int64_t(latency < kSecond ? kSecond : latency - latency % kSecond);
}

bool isNoWake(const Params& params) {
    const auto& n = params.numbers;
    return n[0] == 1.0 && n[1] == 0.0 && n[2] == 0.0 && n[3] == 0.0;
}

template <typename Record>
bool isOf(const Record& record, uint32_t activity, uint32_t event) {
    return record.activity == activity && record.event == event;
}

// Removes the first record of the client and the pair; false: there is none.
template <typename Record>
bool remove(std::vector<Record>& table, uint64_t pid, uint32_t activity, uint32_t event) {
    for (size_t i = 0; i < table.size(); ++i) {
        if (table[i].pid != pid || !isOf(table[i], activity, event)) continue;
        table.erase(table.begin() + i);
        return true;
    }
    return false;
}

// The first record of the pair, or NULL.
const NativeEnable* find(const std::vector<NativeEnable>& table, uint32_t activity,
                         uint32_t event) {
    for (const NativeEnable& record : table) {
        if (isOf(record, activity, event)) return &record;
    }
    return nullptr;
}

}  // namespace

void Activity::registerV1_0(Caller caller, Callback callback) {
    registerFirst(
            caller, callback, clientsV1_0, 0,
            {"registerActivityCallback mDeathRecipient new failed",
             "IPCThreadState::self() V1_0 returns nullptr",
             "It's already register pid[%lu] V1_0 callback",
             "Transaction error in linking to V1_0 ActivityInterface death: %s",
             "Unable to link to V1_0 ActivityInterface death notifications",
             "Pid[%lu] link to V1_0 ActivityInterface death notification successful, total cb[%d]"});
}

// The process's later callback replaces the earlier one, and every registration has a recipient of
// its own, which stays though the link fails.
void Activity::registerV1_1(Caller caller, Callback callback) {
    if (callback == 0) return say('E', "invalid Callback");
    const Recipient own = mWorld.newRecipient();
    if (own == 0) return say('E', "registerActivityCallbackV1_1 deathRecipient new failed");
    if (!caller) say('E', "IPCThreadState::self() V1_1 returns nullptr");
    const uint64_t pid = pidOf(caller);
    for (size_t i = 0; i < clientsV1_1.size(); ++i) {
        if (clientsV1_1[i].object == callback) {
            return say('I', "It's already register pid[%lu] V1_1 callback", pid);
        }
        if (clientsV1_1[i].pid != pid) continue;
        clientsV1_1.erase(clientsV1_1.begin() + i);
        for (size_t j = 0; j < recipientsV1_1.size(); ++j) {
            if (recipientsV1_1[j].pid != pid) continue;
            recipientsV1_1.erase(recipientsV1_1.begin() + j);
            break;
        }
        say('I', "It's already register pid[%lu] V1_1 callback, delete...", pid);
        break;
    }
    enter(recipientsV1_1, {own, pid});
    const LinkAnswer answer = mWorld.link(callback, own, pid);
    if (answer.link == Link::kFailed) {
        say('E', "Transaction error in linking to V1_1 ActivityInterface death: %s",
            answer.why.c_str());
    } else if (answer.link == Link::kRefused) {
        say('W', "Unable to link to V1_1 ActivityInterface death notifications");
    } else {
        enter(clientsV1_1, {callback, pid});
        say('D',
            "Pid[%lu] link to V1_1 ActivityInterface death notification successful, total cb[%d]",
            pid, int(clientsV1_1.size()));
    }
}

// The very object leaves the tables; version 1.1 takes the process's requests along. The module is
// told nothing; native enables, barriers, last events and recipients stay.
void Activity::died(uint64_t cookie, Who who) {
    say('I', "serviceDied, cookie is %lu", cookie);
    Recipient own = 0;
    for (size_t i = 0; i < recipientsV1_1.size() && own == 0; ++i) {
        if (recipientsV1_1[i].pid == cookie) own = recipientsV1_1[i].object;
    }
    if (!who.promotable) {
        say('E', "Invalide IBase object");
    } else {
        if (own != 0) {
            mWorld.unlink(who.object, own);
        } else {
            say('E', "DeathRecipient is nullptr");
        }
        if (sharedRecipient != 0) mWorld.unlink(who.object, sharedRecipient);
    }
    const auto pid = leave(clientsV1_1, who.object, "######V1_1 Match, remainder cb[%d]!!!######");
    const auto isTheirs = [&](const Request& request) { return pid && request.pid == *pid; };
    requests.erase(std::remove_if(requests.begin(), requests.end(), isTheirs), requests.end());
    if (leave(clientsV1_0, who.object, "######V1_0 Match, remainder cb[%d]!!!######")) return;
    say('I', "finish");
}

// The smallest latency that anybody wants of the pair; 0 when nobody does.
int64_t Activity::merged(uint32_t activity, uint32_t event) const {
    std::optional<int64_t> smallest;
    for (const Request& request : requests) {
        if (!isOf(request, activity, event)) continue;
        if (!smallest || request.latencyNs < *smallest) smallest = request.latencyNs;
    }
    return smallest.value_or(0);
}

// The first client of a pair enables it with its own latency, whoever follows with the merged one.
// A failure takes the client's request away, also one that stood before.
int32_t Activity::enable(Caller caller, uint32_t activity, uint32_t event, int64_t latencyNs) {
    say('I', "enableActivityEvent activity[%d], event[%d] reportLatency[%ld]ns", int(activity),
        int(event), latencyNs);
    if (!validEvent(event)) return 1;
    const int64_t latency = rounded(latencyNs);
    const uint64_t pid = pidOf(caller);
    remove(requests, pid, activity, event);
    requests.push_back({pid, activity, event, latency});

    bool accepted = false;
    const bool joins = find(natives, activity, event) != nullptr;
    if (!mHasModule) {
        say('E', "%s: mImpl interface is not available",
            joins ? "enableActivityEvent" : "UpdateEnableNative");
    } else if (joins) {
        const int64_t all = merged(activity, event);
        accepted = mWorld.call({"enable_activity_event", activity, event, all}) == 0;
        if (accepted) takeFirstReport(pid, activity, event);
    } else {
        accepted = mWorld.call({"enable_activity_event", activity, event, latency}) == 0;
        if (accepted) natives.push_back({pid, activity, event, latency, 0});
    }
    if (!accepted) remove(requests, pid, activity, event);
    say('I', "enableActivityEvent end, pid[%d]", int(pid));
    return accepted ? 0 : 1;
}

int32_t Activity::enableExtendedNative(uint32_t activity, uint32_t event, int64_t latencyNs,
                                       const Params& params) {
    if (!mHasModule || params.name.size() > 32) {
        say('I', "%s: mImpl interface is not available", "EnableActivityEvent");
        return 1;
    }
    return mWorld.call({"enable_activity_event_extend", activity, event, latencyNs, params});
}

// As above, with the caller's parameters. A native enable that process 0 made counts as none.
int32_t Activity::enableExtended(Caller caller, uint32_t activity, uint32_t event,
                                 int64_t latencyNs, const Params& params) {
    say('I', "enableActivityEventExtend activity[%d], event[%d] report_latency[%ld]ns",
        int(activity), int(event), latencyNs);
    const uint64_t pid = pidOf(caller);
    if (!validEvent(event) || pid == uint64_t(-1) || params.name.size() > 32) return 1;
    const bool noWake = isNoWake(params);
    const int64_t latency = noWake ? kNoWakeLatencyNs : rounded(latencyNs);
    remove(requests, pid, activity, event);
    requests.push_back({pid, activity, event, latency, params});

    bool accepted;
    const NativeEnable* const known = find(natives, activity, event);
    if (known != nullptr && known->pid != 0) {
        const int64_t all = merged(activity, event);
        accepted = enableExtendedNative(activity, event, all, params) == 0;
        if (accepted) takeFirstReport(pid, activity, event);
    } else {
        accepted = enableExtendedNative(activity, event, latency, params) == 0;
        if (accepted) natives.push_back({pid, activity, event, latency, noWake});
    }
    if (!accepted) remove(requests, pid, activity, event);
    say('I', "enableActivityEventExtend end, pid[%d]", int(pid));
    return accepted ? 0 : 1;
}

// The barrier of a client that joined: the time of the last record that is current, in the module's
// order. Nothing current: the earlier barrier stays.
void Activity::takeFirstReport(uint64_t pid, uint32_t activity, uint32_t event) {
    const Snapshot current = mWorld.currentActivity();
    if (current.count == 0) return;
    if (current.count > 0 && current.times.empty()) return;
    const int64_t barrier = current.count > 0 ? current.times.at(current.count - 1) : 0;
    remove(barriers, pid, activity, event);
    barriers.push_back({pid, activity, event, barrier});
}

// The client's request, barrier and last event of the pair go, whatever the module then says.
int32_t Activity::disable(Caller caller, uint32_t activity, uint32_t event) {
    say('I', "disableActivityEvent acivity[%d] event[%d]", int(activity), int(event));
    if (!validEvent(event)) return 1;
    const uint64_t pid = pidOf(caller);
    if (!remove(requests, pid, activity, event)) return 1;
    remove(barriers, pid, activity, event);
    remove(lastEvents, pid, activity, event);
    return remerge(activity, event) == 0 ? 0 : 1;
}

// What the module is told after a request has gone. One request whose first parameter is 0 makes
// the pair a plain one; otherwise the last no-wake request's parameters are passed, or zeros.
int32_t Activity::remerge(uint32_t activity, uint32_t event) {
    bool remains = false, allExtended = true;
    Params saved;
    for (const Request& request : requests) {
        if (!isOf(request, activity, event)) continue;
        remains = true;
        if (request.params.numbers[0] == 0.0) allExtended = false;
        if (isNoWake(request.params)) saved = request.params;
    }
    if (remains) {
        const int64_t all = merged(activity, event);
        if (natives.empty()) return -1;
        if (!mHasModule) return 1;
        if (!allExtended) return mWorld.call({"enable_activity_event", activity, event, all});
        return mWorld.call({"enable_activity_event_extend", activity, event, all, saved});
    }
    // The pair's first record goes, without one the table's first.
    if (!natives.empty()) {
        const NativeEnable* const known = find(natives, activity, event);
        natives.erase(natives.begin() + (known == nullptr ? 0 : known - natives.data()));
    }
    return mHasModule ? mWorld.call({"disable_activity_event", activity, event}) : 0;
}

int32_t Activity::flush() {
    if (!mHasModule) {
        say('E', "%s: mImpl interface is not available", "flush");
        return 1;
    }
    return mWorld.call({"flush"}) == 0 ? 0 : 1;
}

// Plain events go to those who asked for their pair.
void Activity::changed(Caller thread, const Event* events, int32_t count) {
    say('I', "ActChangedCb start count[%d]", count);
    if (events == nullptr || count < 1 || count > 192) {
        return say('E', "(%s:%d) Invalid actChangedCb. Count: %d", "ActChangedCb", 297, count);
    }
    std::vector<Routed> batch;
    for (int32_t i = 0; i < count; ++i) {
        if (events[i].type == 0) continue;
        for (const Request& request : requests) {
            if (isOf(request, events[i].activity, events[i].type)) {
                route(thread, events[i], request, batch);
            }
        }
        mWorld.betweenRecords();
    }
    report(batch);
    say('I', "ActChangedCb end, pid[%d]", thread.value_or(0));
}

// The barrier is that of the delivering thread's caller, not of the client.
void Activity::route(Caller thread, const Event& event, const Request& request,
                     std::vector<Routed>& batch) {
    int64_t barrier = 0;
    for (const Moment& known : barriers) {
        if (known.pid != pidOf(thread) || !isOf(known, event.activity, event.type)) continue;
        barrier = known.timestamp;
        break;
    }
    if (event.timestamp < barrier) return;

    bool found = false;
    for (size_t i = 0; i < lastEvents.size() && !found; ++i) {
        if (lastEvents[i].pid != request.pid || lastEvents[i].activity != request.activity)
            continue;
        lastEvents[i].event = event.type;
        found = true;
    }
    if (!found) {
        lastEvents.push_back({request.pid, request.activity, event.type, event.timestamp});
    }
    batch.push_back({request.pid, {event.type, request.activity, event.timestamp, event.extra}});
    if (std::count(reported.begin(), reported.end(), request.pid) == 0) {
        reported.push_back(request.pid);
    }
}

// Process by process: its share to its version 1.1 clients, and to every version 1.0 client.
void Activity::report(const std::vector<Routed>& batch) {
    const size_t n = reported.size();
    for (size_t i = 0; i < n; ++i) {
        const uint64_t pid = reported[i];
        std::vector<Event> share;
        for (const Routed& routed : batch) {
            if (routed.pid == pid) share.push_back(routed.event);
        }
        for (size_t j = 0; !share.empty() && j < clientsV1_1.size(); ++j) {
            const Entry client = clientsV1_1[j];
            if (client.pid != pid || client.object == 0) continue;
            if (!mWorld.deliver(client.object, "onActivityChangedV1_1", share)) {
                // Names the client at the process's position in the report list, if there is one.
                const uint64_t named = i < clientsV1_1.size() ? clientsV1_1[i].pid : 0;
                say('I', "%s: Unable to invoke onActivityChangedV1_1 PID[%lu]", "ActivitiesReport",
                    named);
            }
            say('I', "able to onActivityChangedV1_1");
        }
        broadcast(clientsV1_0, "onActivityChanged", withoutExtra(share),
                  "actChangedCb V1_0 callback is nullptr, PID[%lu]",
                  "%s: Unable to invoke onActivityChangedV1_0 PID[%lu]", "ActChangedCbV1_0");
    }
}

// Extended events go to everybody.
void Activity::extendChanged(const Event* events, int32_t count) {
    if (events == nullptr || count < 1 || count > 192) {
        return say('E', "(%s:%d) Invalid actExtendChangedCb. Count: %d", "ActExtendChangedCb", 64,
                   count);
    }
    const std::vector<Event> all(events, events + count);
    broadcast(clientsV1_1, "onActivityExtendChangedV1_1", all,
              "actExtendChangedCb V1_1 callback is nullptr, PID[%lu]",
              "%s: Unable to invoke onActivityExtendChangedV1_1, PID[%lu]", "ActExtendChangedCb");
    broadcast(clientsV1_0, "onActivityExtendChanged", withoutExtra(all),
              "actExtendChangedCb V1_0 callback is nullptr, PID[%lu]",
              "%s: Unable to invoke onActivityExtendChangedV1_0 PID[%lu]",
              "ActExtendChangedCbV1_0");
}

}  // namespace ar_model
