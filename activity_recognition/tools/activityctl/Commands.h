// SPDX-License-Identifier: Apache-2.0
// The sub-commands. Each returns kOk or throws Failure.
#pragma once

#include <signal.h>

#include <string>

#include "Failure.h"
#include "Options.h"
#include "Output.h"
#include "Service.h"
#include "Staying.h"

namespace activityctl {

// Queries.cpp
ExitStatus list(Side& side, Output& output);
ExitStatus current(Side& side, Output& output);
ExitStatus status(const Options& options, Output& output);

// DumpCommand.cpp
ExitStatus dump(const Options& options, Output& output);

// Top.cpp; whoever calls it has taken over topSignals().
sigset_t topSignals();
ExitStatus top(const Options& options, Output& output);

// Sweep.cpp
ExitStatus sweep(const Options& options, Output& output);

// ScenarioCommand.cpp: no service is asked
ExitStatus checkScenario(const Options& options, Output& output);

// TimelineCommand.cpp
ExitStatus timeline(const Options& options);

// Control.cpp: one call per pair or environment, then done
ExitStatus disable(Side& side, const Options& options, Output& output);
ExitStatus flush(ActivitySide& side, Output& output);
ExitStatus enableAndLeave(Side& side, const Options& options, Output& output);
ExitStatus initEnvironments(EnvironmentSide& side, const Options& options, Output& output);
ExitStatus exitEnvironments(EnvironmentSide& side, const Options& options, Output& output);

// Watch.cpp: enables, stays, and on leaving disables what it enabled. quiet: prints no events.
ExitStatus watch(const OpenSide& open, const Options& options, Output& output, bool quiet);

// Recorder.cpp: enables, stays, writes what it could see, and disables.
ExitStatus record(const OpenSide& open, const Options& options, Output& output);

// Looks names up in the service's list; a pair without an event type becomes both.
std::vector<Pair> resolve(const Side& side, const std::vector<std::string>& names,
                          const std::vector<PairText>& texts, int64_t defaultLatencyNs);

// enable() and disable() of a side; Failure(kRefused) names the pair and, as far as it can be known
// from here, the reason.
void enableOrFail(Side& side, const Pair& pair, const Extras& extras);
void disableOrFail(Side& side, const Pair& pair);

// Members "activity", "activity_name", "event_type" of a pair.
nlohmann::json toJson(const Side& side, const Pair& pair);

}  // namespace activityctl
