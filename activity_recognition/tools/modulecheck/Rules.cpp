// SPDX-License-Identifier: Apache-2.0
#include "Rules.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace modulecheck {
namespace {

// One mistake tends to show in every record; more than this tells nothing new.
constexpr ptrdiff_t kFindingsPerRule = 5;

const Rule& ruleOf(const std::string& id) {
    static const Rule unknown = {"", "", ""};
    for (const Rule& rule : allRules()) {
        if (id == rule.id) return rule;
    }
    return unknown;
}

}  // namespace

const std::vector<Rule>& allRules() {
    static const std::vector<Rule> rules = {
            {"module.symbol", "the file loads with all symbols bound and exports HMI",
             "define HAL_MODULE_INFO_SYM as extern \"C\", and link all that the module uses"},
            {"module.tag", "the module record's tag is HARDWARE_MODULE_TAG",
             "fill hw_module_t from its first member on"},
            {"module.id", "the module record's id is \"activity_recognition\"",
             "set id to ACTIVITY_RECOGNITION_HARDWARE_MODULE_ID"},
            {"module.open", "methods->open opens \"activity_recognition_hidl\": 0 and a device",
             "let open fill the device and return; wait for hardware in a thread of the module's"},
            {"device.name", "methods->open refuses any other device name with a non-zero result",
             "compare all of the name with ACTIVITY_RECOGNITION_HARDWARE_INTERFACE, else -EINVAL"},
            {"device.tag", "the device record's tag is HARDWARE_DEVICE_TAG",
             "set common.tag before open returns"},
            {"device.tables", "both table getters are filled and return a readable table or NULL",
             "return the address of a static table, or NULL for a side without support"},
            {"device.close", "close is filled, returns 0 and does not hang",
             "tell the threads to end, let go of every lock, then join them"},
            {"close.silent", "no callback begins after close has returned",
             "join every thread that calls back before close returns"},
            {"close.tables", "tables may still be called after close; what they answer is free",
             "never free tables, locks or state; let the slots test whether the device is open"},
            {"table.slots", "a table that is offered has all its seven slots filled",
             "point a slot without use at a function that returns -ENOSYS"},
            {"list.size", "a supported list has 1 to 1024 readable entries",
             "return the number of entries and set *list to them; a side without any is a NULL table"},
            {"list.names", "a supported name is readable, 1 to 255 bytes and a NUL",
             "keep the names in static arrays of char"},
            {"list.stable", "a supported list stays readable and the same in every call",
             "make the list once, when the device opens, and leave it alone"},
            {"snapshot.size", "a current-state query returns 0 to 5",
             "give the five newest records; the service drops a longer snapshot whole"},
            {"snapshot.records", "a snapshot of N records is a readable array of N",
             "set *events to memory of the module's that holds all of them"},
            {"snapshot.names", "a snapshot record's name has its NUL within 32 bytes",
             "cut names at 31 bytes: snprintf does, strncpy does not"},
            {"snapshot.stable", "other threads' queries do not change a snapshot being read",
             "copy it into static thread_local memory"},
            {"call.results", "enable, enable again, disable, flush, init and exit return 0",
             "take repeated enables and any latency and name; only what cannot be done is refused"},
            {"params.bounded", "a parameter name is 32 bytes, with or without a NUL",
             "use strnlen(params->name, sizeof(params->name))"},
            {"params.retained", "parameters are not touched after the call has returned",
             "copy what is needed; the caller's memory is gone after the call"},
            {"event.count", "a callback carries 1 to 192 records",
             "report in pieces of ACTIVITY_RECOGNITION_MAX_EVENTS, and nothing when there is nothing"},
            {"event.array", "a callback's array is readable for all its records",
             "hand over memory that stays until the callback has returned"},
            {"event.type", "an activity record's event type is 1 or 2",
             "use the event type that the pair was enabled with"},
            {"event.activity", "a record's activity or environment is one of the supported list",
             "a record's number is a position in the list, counted from 0"},
            {"event.time", "timestamps are positive and do not decrease within a pair",
             "stamp records on one clock that is never set, and report from one thread"},
            {"event.name", "a record's name has its NUL within 32 bytes",
             "cut names at 31 bytes: snprintf does, strncpy does not"},
            {"event.enabled", "records come only for pairs that are enabled",
             "look the pair (activity, event type) up before a record is kept or reported"},
            {"event.disabled", "no records of a pair come once its disable has taken effect",
             "drop what is held for the pair, and look it up again before each report"},
            {"latency.kept",
             "a record comes at most its pair's latency, plus the tolerance, after it happened",
             "count from the oldest record held; apply a new latency to what is held already"},
            {"reentry.calls", "slots may be called from inside a callback",
             "let go of every lock that a slot takes before calling back"},
            {"reentry.nested", "a slot called inside a callback does not call back on that thread",
             "let slots mark what is held as due and wake a thread of the module's, which reports it"},
            {"threads.calls", "slots may be called from several threads at once",
             "guard the state with a lock that is held for moments only"},
            {"threads.blocked", "slots return while a callback is still running elsewhere",
             "let no slot wait for a callback or make one: wake the thread that reports, and return"},
    };
    return rules;
}

void Report::addFinding(const std::string& rule, const std::string& seen) {
    const auto sameRule = [&](const Finding& other) { return other.rule == rule; };
    for (const Finding& other : mFindings) {
        if (sameRule(other) && other.seen == seen) return;
    }
    if (std::count_if(mFindings.begin(), mFindings.end(), sameRule) < kFindingsPerRule) {
        mFindings.push_back({rule, seen});
    }
}

bool Report::has(const std::string& rule) const {
    return std::any_of(mFindings.begin(), mFindings.end(),
                       [&](const Finding& finding) { return finding.rule == rule; });
}

bool Report::isClean(bool strict) const {
    return mFindings.empty() && !(strict && !rules(false).empty());
}

// Those that held, or those that nothing was seen of.
std::vector<std::string> Report::rules(bool exercised) const {
    std::vector<std::string> ids;
    for (const Rule& rule : allRules()) {
        if (!has(rule.id) && (mExercised.count(rule.id) != 0) == exercised) ids.push_back(rule.id);
    }
    return ids;
}

std::string Report::text(const std::string& module, bool strict) const {
    std::string text;
    std::set<std::string> hinted;
    for (const Finding& finding : mFindings) {
        const Rule& rule = ruleOf(finding.rule);
        text += fmt::format("{}\n    seen:     {}\n    expected: {}\n", finding.rule, finding.seen,
                            rule.expected);
        if (hinted.insert(finding.rule).second)
            text += fmt::format("    hint:     {}\n", rule.hint);
    }
    for (const std::string& note : mNotes) text += fmt::format("note: {}\n", note);
    const auto held = rules(true);
    const auto idle = rules(false);
    if (!idle.empty()) {
        text += fmt::format("not exercised{}: {}\n", strict ? ", which counts as broken" : "",
                            fmt::join(idle, " "));
    }
    text += fmt::format("{}: {} of {} rules held, {} broken, {} not exercised\n", module,
                        held.size(), allRules().size(),
                        allRules().size() - held.size() - idle.size(), idle.size());
    return text;
}

std::string Report::json(const std::string& module, bool strict) const {
    nlohmann::json findings = nlohmann::json::array();
    for (const Finding& finding : mFindings) {
        const Rule& rule = ruleOf(finding.rule);
        findings.push_back({{"rule", finding.rule},
                            {"seen", finding.seen},
                            {"expected", rule.expected},
                            {"hint", rule.hint}});
    }
    const nlohmann::json report = {{"module", module},     {"clean", isClean(strict)},
                                   {"findings", findings}, {"notes", mNotes},
                                   {"held", rules(true)},  {"not_exercised", rules(false)}};
    // What a module says of itself need not be UTF-8.
    return report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string rulesText() {
    std::string text;
    for (const Rule& rule : allRules()) text += fmt::format("{:<18}{}\n", rule.id, rule.expected);
    return text;
}

}  // namespace modulecheck
