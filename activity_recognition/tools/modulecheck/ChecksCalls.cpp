// SPDX-License-Identifier: Apache-2.0
#include <string>

#include <fmt/format.h>

#include "Checks.h"
#include "Subject.h"

namespace modulecheck {
namespace {

constexpr int64_t kSecondNs = 1000000000;
constexpr int64_t kNoWakeNs = 604800 * kSecondNs;

class ResultChecker {
  public:
    explicit ResultChecker(Probe& probe) : mProbe(probe) {}

    template <typename Call>
    void operator()(const char* slot, const char* how, Call call) {
        mProbe.stage("call.results", fmt::format("{} {}", slot, how));
        mProbe.exercised("call.results");
        const int result = call();
        if (result != 0) {
            mProbe.finding("call.results", fmt::format("{} {}: {}", slot, how, result));
        }
    }

  private:
    Probe& mProbe;
};

void checkActivityCalls(Probe& probe, const Subject& subject) {
    ResultChecker check(probe);
    const Calls calls{probe, subject};
    const activity_interface& table = *subject.activity;
    check("enable_activity_event", "(0, 1)",
          [&] { return calls.enable(Kind::kPlain, 0, 1, kSecondNs); });
    check("enable_activity_event", "(0, 1) again",
          [&] { return calls.enable(Kind::kPlain, 0, 1, 2 * kSecondNs); });
    check("flush", "", table.flush);
    check("disable_activity_event", "(0, 1)", [&] { return calls.disable(Kind::kPlain, 0, 1); });

    // Names that do and do not leave room for a NUL, and a request for no wake-up.
    for (const size_t length : {0, 31, 32}) {
        const std::string how = fmt::format("(0, 2) with a name of {} characters", length);
        check("enable_activity_event_extend", how.c_str(), [&] {
            Recorder::instance().willEnable(Kind::kExtended, 0, 2);
            const GuardedParams params(probe, {1, 0, 0, 0}, std::string(length, 'n'));
            return table.enable_activity_event_extend(0, 2, kNoWakeNs, params.get());
        });
    }
    // After these, a module that kept a pointer has had its chances to use it.
    check("flush", "after the extended enables", table.flush);
    check("enable_activity_event", "(0, 2) after the extended enables",
          [&] { return calls.enable(Kind::kPlain, 0, 2, kSecondNs); });
    check("disable_activity_event", "(0, 2)", [&] { return calls.disable(Kind::kPlain, 0, 2); });
    check("flush", "after the disable", table.flush);
}

void checkEnvironmentCalls(Probe& probe, const Subject& subject) {
    ResultChecker check(probe);
    const Calls calls{probe, subject};
    for (const size_t length : {0, 32}) {
        const std::string how = fmt::format("with a name of {} characters", length);
        const std::string name(length, 'n');
        check("init_environment", how.c_str(), [&] { return calls.init(0, name); });
        check("enable_environment", how.c_str(), [&] {
            Recorder::instance().willEnable(Kind::kEnvironment, 0, 1);
            const GuardedParams params(probe, {1, 0, 0, 0}, name);
            return subject.environment->enable_environment(0, 1, kSecondNs, params.get());
        });
        check("disable_environment", "(0, 1)",
              [&] { return calls.disable(Kind::kEnvironment, 0, 1); });
        check("exit_environment", how.c_str(), [&] { return calls.exit(0, name); });
    }
}

}  // namespace

void checkCalls(Probe& probe) {
    Subject subject;
    if (!subject.start(probe)) return;
    if (subject.activity != nullptr && subject.activities > 0) checkActivityCalls(probe, subject);
    if (subject.environment != nullptr && subject.environments > 0) {
        checkEnvironmentCalls(probe, subject);
    }
    // A thread of the module's may use what it kept at its next event.
    probe.stage("params.retained", "waiting for events");
    Calls{probe, subject}.enableAll(0);
    Recorder::instance().waitForBatch(0, probe.options.listen);
    probe.exercised("params.bounded");
    probe.exercised("params.retained");
}

}  // namespace modulecheck
