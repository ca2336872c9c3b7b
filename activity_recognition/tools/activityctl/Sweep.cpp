// SPDX-License-Identifier: Apache-2.0
// Withdraws what the module has enabled and nobody asks for, as any client could: by an enable and
// a disable of its own.
#include <fmt/format.h>

#include <algorithm>

#include "Background.h"
#include "Commands.h"
#include "Dump.h"

namespace activityctl {
namespace {

// For the moment between the two calls: the module has the least reason to report.
constexpr int64_t kLatencyNs = 7LL * 24 * 3600 * 1'000'000'000;

// Which locks are in the way, and by whom; nothing when there are none.
std::string heldIn(const Dump& dump) {
    std::string held;
    for (const std::string& lock : dump.held) {
        held += "; " + lock + " is held" + holderOf(lock, dump);
    }
    return held;
}

std::vector<Dump::Pair> orphansOf(const Dump& dump) {
    if (!dump.activity) return {};
    if (dump.activity->orphans) return *dump.activity->orphans;
    throw Failure(kRefused, "the service cannot tell which pairs are orphans now" + heldIn(dump));
}

// Those of them that are asked for; all without a question.
std::vector<Dump::Pair> select(const std::vector<Dump::Pair>& orphans,
                               const std::vector<PairText>& texts,
                               const std::vector<std::string>& names) {
    if (texts.empty()) return orphans;
    std::vector<Dump::Pair> chosen;
    for (const PairText& text : texts) {
        if (text.latencyNs) throw Failure(kUsage, "a pair to sweep has no latency");
        const uint32_t id = resolveId(text.what, names, "activity");
        const size_t before = chosen.size();
        std::copy_if(orphans.begin(), orphans.end(), std::back_inserter(chosen),
                     [&](const Dump::Pair& pair) {
                         return pair.activity == id &&
                                text.eventType.value_or(pair.eventType) == pair.eventType;
                     });
        if (chosen.size() == before) {
            throw Failure(kRefused,
                          fmt::format("{}{} is no orphan: somebody asks for it, or the module does "
                                      "not have it enabled (activityctl dump tells which)",
                                      nameOf(id, names),
                                      text.eventType ? fmt::format(":{}", *text.eventType) : ""));
        }
    }
    return chosen;
}

// A request of a process without a callback would stay for ever if the process died in between; one
// with a version 1.1 callback takes its request along.
void registerInTime(const std::shared_ptr<Side>& side, const Dump& dump) {
    const auto queue = std::make_shared<DeliveryQueue>();
    const auto registered = inTime(kPatienceNs, [side, queue] {
        side->receive(queue);
        return true;
    });
    if (registered) return;
    throw Failure(kServiceLost, "nothing is swept: the service does not come to register a client" +
                                        heldIn(dump));
}

}  // namespace

ExitStatus sweep(const Options& options, Output& output) {
    if (options.version != Version::k1_1) {
        throw Failure(kUsage,
                      "sweep is a client of version 1.1: should it die on the way, only that "
                      "one's requests go with it");
    }
    const auto service =
            std::make_shared<Service>(options.instance, options.version, options.waitNs);
    const Dump dump = readDumpInTime(service);
    const auto orphans = orphansOf(dump);
    const auto names = activityNamesInTime(service, dump);
    const auto chosen = select(orphans, options.pairs, names);
    if (chosen.empty()) {
        if (!output.json()) output.print("", {}, "there are no orphans");
        return kOk;
    }

    const std::shared_ptr<Side> side = service->activities();
    if (!options.dryRun) registerInTime(side, dump);
    ExitStatus status = kOk;
    for (const Dump::Pair& orphan : chosen) {
        const Pair pair{orphan.activity, orphan.eventType, kLatencyNs,
                        fmt::format("{}:{}", nameOf(orphan.activity, names), orphan.eventType)};
        try {
            if (!options.dryRun) {
                enableOrFail(*side, pair, {});
                disableOrFail(*side, pair);
            }
            output.print(options.dryRun ? "orphan" : "swept", toJson(*side, pair),
                         (options.dryRun ? "would sweep " : "swept ") + pair.text);
        } catch (const Failure& failure) {
            if (failure.status != kRefused) throw;
            Output::complain(failure.what());
            status = kRefused;  // the others are no worse for it
        }
    }
    return status;
}

}  // namespace activityctl
