// SPDX-License-Identifier: Apache-2.0
// A scenario without a service: read by the simulator's own reader.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "Commands.h"
#include "Records.h"
#include "Scenario.h"
#include "Text.h"

namespace activityctl {
namespace {

using ar_simulator::Fault;
using ar_simulator::Kind;
using ar_simulator::Mistake;
using ar_simulator::Scenario;
using ar_simulator::Step;

Record toRecord(const Step& step) {
    const ar_context_event& event = step.event;
    Record record{event.event_type, event.activity, step.offsetNs, event.extra, {}};
    if (step.kind != Kind::kPlain) {
        record.payload = Payload{event.value, {}, event.name};
        std::copy(std::begin(event.context_data), std::end(event.context_data),
                  record.payload->contextData.begin());
    }
    return record;
}

// As the file has them: "batch=193 threads=2".
std::string toText(const Fault& fault) {
    std::vector<std::string> options;
    if (fault.batch != ar_simulator::kHeld) options.push_back(fmt::format("batch={}", fault.batch));
    if (fault.threads > 1) options.push_back(fmt::format("threads={}", fault.threads));
    if (!fault.slot.empty()) options.push_back("inside=" + fault.slot);
    if (fault.withoutType) options.push_back("broken=type");
    if (fault.unterminated) options.push_back("broken=name");
    return fmt::format("{}", fmt::join(options, " "));
}

bool same(const Step& a, const Step& b) {
    return a.offsetNs == b.offsetNs && a.kind == b.kind && a.fault == b.fault &&
           memcmp(&a.event, &b.event, sizeof(a.event)) == 0;
}

void printRecord(const Step& step, size_t times, const Scenario& scenario, Output& output) {
    static constexpr const char* kKinds[] = {"activity", "extended", "environment"};
    const char* kind = kKinds[static_cast<int>(step.kind)];
    const bool isActivity = step.kind != Kind::kEnvironment;
    const auto& names = isActivity ? scenario.activities : scenario.environments;
    const Record record = toRecord(step);
    nlohmann::json json{{"kind", kind}, {"times", times}, {"fault", nullptr}};
    json["record"] = toJson(record, isActivity ? "activity" : "environment", names);
    std::string text = fmt::format("{} {}", kind, toText(record, names, output));
    if (step.fault != nullptr) {
        json["fault"] = toText(*step.fault);
        text += " " + toText(*step.fault);
    }
    if (times > 1) text += fmt::format(", {} times", times);
    output.print("reported", std::move(json), text);
}

void printTimeline(const Scenario& scenario, Output& output) {
    const auto& steps = scenario.steps;
    for (size_t i = 0, next; i < steps.size() && output.isOpen(); i = next) {
        const Step& step = steps[i];
        next = i + 1;
        const std::string at = output.timestamp(step.offsetNs);
        if (step.kind == Kind::kWait) {
            const std::string name = step.event.name;
            output.print("waits", {{"offset_ns", step.offsetNs}, {"name", name}},
                         fmt::format("waits at {} for '{}'", at, printable(name)));
        } else if (step.kind == Kind::kAnswer) {
            const Fault& fault = *step.fault;
            output.print("answers",
                         {{"offset_ns", step.offsetNs},
                          {"slot", fault.slot},
                          {"result", fault.answer},
                          {"times", fault.calls}},
                         fmt::format("from {} {} answers {}, {} times", at, fault.slot,
                                     fault.answer, fault.calls));
        } else {
            while (next < steps.size() && same(step, steps[next])) ++next;
            printRecord(step, next - i, scenario, output);
        }
    }
    if (scenario.loops) {
        output.print("loops", {{"offset_ns", scenario.periodNs}},
                     "from the beginning again at " + output.timestamp(scenario.periodNs));
    }
}

}  // namespace

ExitStatus checkScenario(const Options& options, Output& output) {
    const std::string& file = options.file;
    Scenario scenario;
    const auto mistakes = ar_simulator::readScenario(file.c_str(), &scenario);
    if (!mistakes.empty() && mistakes[0].line == 0) {
        throw Failure(kUsage, fmt::format("{}: {}", file, mistakes[0].reason));
    }
    for (const Mistake& mistake : mistakes) {
        output.print("mistake", {{"file", file}, {"line", mistake.line}, {"error", mistake.reason}},
                     printable(fmt::format("{}:{}: {}", file, mistake.line, mistake.reason)));
    }
    if (!mistakes.empty()) {
        throw Failure(kUsage, fmt::format("{}: lines with mistakes: {}", file, mistakes.size()));
    }
    const std::string loop = ar_simulator::checkLoop(scenario);
    if (!loop.empty()) throw Failure(kUsage, fmt::format("{}: {}", file, loop));
    printTimeline(scenario, output);
    return kOk;
}

}  // namespace activityctl
