#include "Rules.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace modulecheck {
namespace {

// One mistake tends to show in every record; more than this tells nothing new.
constexpr ptrdiff_t kFindingsPerRule = 5;

std::string expectedOf(const std::string& id) {
    for (const Rule& rule : allRules()) {
        if (id == rule.id) return rule.expected;
    }
    return "";
}

}  // namespace

const std::vector<Rule>& allRules() {
    static const std::vector<Rule> rules = {
            {"module.symbol", "the file loads with all symbols bound and exports HMI"},
            {"module.tag", "the module record's tag is HARDWARE_MODULE_TAG"},
            {"module.id", "the module record's id is \"activity_recognition\""},
            {"module.open", "methods->open opens \"activity_recognition_hidl\": 0 and a device"},
            {"device.name", "methods->open refuses any other device name with a non-zero result"},
            {"device.tag", "the device record's tag is HARDWARE_DEVICE_TAG"},
            {"device.tables", "both table getters are filled and return a readable table or NULL"},
            {"device.close", "close is filled, returns 0 and does not hang"},
            {"close.silent", "no callback begins after close has returned"},
            {"close.tables", "tables may still be called after close; what they answer is free"},
            {"table.slots", "a table that is offered has all its seven slots filled"},
            {"list.size", "a supported list has 1 to 1024 readable entries"},
            {"list.names", "a supported name is readable, 1 to 255 bytes and a NUL"},
            {"list.stable", "a supported list stays readable and the same in every call"},
            {"snapshot.size", "a current-state query returns 0 to 5"},
            {"snapshot.records", "a snapshot of N records is a readable array of N"},
            {"snapshot.names", "a snapshot record's name has its NUL within 32 bytes"},
            {"snapshot.stable", "other threads' queries do not change a snapshot being read"},
            {"call.results", "enable, enable again, disable, flush, init and exit return 0"},
            {"params.bounded", "a parameter name is 32 bytes, with or without a NUL"},
            {"params.retained", "parameters are not touched after the call has returned"},
            {"event.count", "a callback carries 1 to 192 records"},
            {"event.array", "a callback's array is readable for all its records"},
            {"event.type", "an activity record's event type is 1 or 2"},
            {"event.activity", "a record's activity or environment is one of the supported list"},
            {"event.time", "timestamps are positive and do not decrease within a pair"},
            {"event.name", "a record's name has its NUL within 32 bytes"},
            {"event.enabled", "records come only for pairs that are enabled"},
            {"event.disabled", "no records of a pair come once its disable has taken effect"},
            {"reentry.calls", "slots may be called from inside a callback"},
            {"reentry.nested", "a slot called inside a callback does not call back on that thread"},
            {"threads.calls", "slots may be called from several threads at once"},
            {"threads.blocked", "slots return while a callback is still running elsewhere"},
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

// Those that held, or those that nothing was seen of.
std::vector<std::string> Report::rules(bool exercised) const {
    std::vector<std::string> ids;
    for (const Rule& rule : allRules()) {
        if (!has(rule.id) && (mExercised.count(rule.id) != 0) == exercised) ids.push_back(rule.id);
    }
    return ids;
}

std::string Report::text(const std::string& module) const {
    std::string text;
    for (const Finding& finding : mFindings) {
        text += fmt::format("{}\n    seen:     {}\n    expected: {}\n", finding.rule, finding.seen,
                            expectedOf(finding.rule));
    }
    for (const std::string& note : mNotes) text += fmt::format("note: {}\n", note);
    const auto held = rules(true);
    const auto idle = rules(false);
    if (!idle.empty()) text += fmt::format("not exercised: {}\n", fmt::join(idle, " "));
    text += fmt::format("{}: {} of {} rules held, {} broken, {} not exercised\n", module,
                        held.size(), allRules().size(),
                        allRules().size() - held.size() - idle.size(), idle.size());
    return text;
}

std::string Report::json(const std::string& module) const {
    nlohmann::json findings = nlohmann::json::array();
    for (const Finding& finding : mFindings) {
        findings.push_back({{"rule", finding.rule},
                            {"seen", finding.seen},
                            {"expected", expectedOf(finding.rule)}});
    }
    const nlohmann::json report = {{"module", module},     {"clean", isClean()},
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
