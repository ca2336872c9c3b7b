// SPDX-License-Identifier: Apache-2.0
#include "ar_model/Model.h"

namespace ar_model {

// Both versions refuse a process's second callback; without a caller the process is 1.

void Environment::registerV1_0(Caller caller, Callback callback) {
    registerFirst(
            caller, callback, clientsV1_0, 1,
            {"registerEnvironmentCallback new mDeathRecipient failed",
             "IPCThreadState::self() V1_0 returns nullptr",
             "It's already register pid[%lu] callback, V1_0",
             "Transaction error in linking to EnvironmentInterfaceV1_0 death: %s",
             "Unable to link to EnvironmentInterfaceV1_0 death notifications",
             "Pid[%lu] link to EnvironmentInterfaceV1_0 death notification successful, total cb[%d]"});
}

void Environment::registerV1_1(Caller caller, Callback callback) {
    registerFirst(
            caller, callback, clientsV1_1, 1,
            {"registerEnvironmentCallbackV1_1 Death new failed",
             "IPCThreadState::self() V1_1 returns nullptr",
             "It's already register pid[%lu] callback, V1_1",
             "Transaction error in linking to EnvironmentInterfaceV1_1 death: %s",
             "Unable to link to EnvironmentInterfaceV1_1 death notifications",
             "Pid[%lu] link to EnvironmentInterfaceV1_1 death notification successful, total cb[%d]"});
}

// The very object leaves the tables, version 1.1 first; "finish" when version 1.0 had none of it.
void Environment::died(uint64_t cookie, Who who) {
    say('I', "ENV serviceDied, cookie is %lu", cookie);
    if (who.promotable) {
        mWorld.unlink(who.object, sharedRecipient);
    } else {
        say('E', "Invalide IBase object, ENV");
    }
    leave(clientsV1_1, who.object, "######V1_1 ENV Match, remainder cb[%d]!!!######");
    if (leave(clientsV1_0, who.object, "######V1_0 ENV Match, remainder cb[%d]!!!######")) return;
    say('I', "finish");
}

// Control goes to the module as it comes; nothing is recorded. A name that is too long is refused
// in the words of a missing table.
int32_t Environment::pass(const NativeCall& call, const char* refused, const char* method) {
    if (!mHasModule || (call.params && call.params->name.size() > 32)) {
        say('E', refused, method);
        return 1;
    }
    return mWorld.call(call) == 0 ? 0 : 1;
}

int32_t Environment::init(uint32_t environment, const Params& params) {
    return pass({"init_environment", environment, {}, {}, params},
                "%s: initEnvironment mImpl interface is not available", "initEnvironment");
}

int32_t Environment::exit(uint32_t environment, const Params& params) {
    return pass({"exit_environment", environment, {}, {}, params},
                "%s: exitEnvironment mImpl interface is not available", "exitEnvironment");
}

int32_t Environment::enable(uint32_t environment, uint32_t event, int64_t latencyNs,
                            const Params& params) {
    return pass({"enable_environment", environment, event, latencyNs, params},
                "%s: enableEnvironment mImpl interface is not available", "enableEnvironment");
}

int32_t Environment::disable(uint32_t environment, uint32_t event) {
    return pass({"disable_environment", environment, event}, "%s: mImpl interface is not available",
                "disableEnvironment");
}

// Everybody gets everything.
void Environment::changed(const Event* events, int32_t count) {
    if (events == nullptr || count < 1 || count > 192) {
        return say('E', "(%s:%d) Invalid envChangedCb. Count: %d", "EnvChangedCb", 73, count);
    }
    const std::vector<Event> all(events, events + count);
    broadcast(clientsV1_1, "onEnvironmentChangedV1_1", all,
              "envChangedCb V1_1 callback is nullptr, PID[%lu]",
              "%s: Unable to invoke onEnvironmentChanged V1_1, PID[%lu]", "EnvChangedCb");
    broadcast(clientsV1_0, "onEnvironmentChanged", withoutExtra(all),
              "onEnvironmentChanged V1_0 callback is nullptr, PID[%lu]",
              "%s: Unable to invoke onEnvironmentChanged V1_0 PID[%lu]",
              "env_extend_changed_cb_v1_0");
}

}  // namespace ar_model
