// SPDX-License-Identifier: Apache-2.0
// What a module is put through. Each check runs in a child of its own with the module loaded anew.
#pragma once

#include "Probe.h"

namespace modulecheck {

// Records, opening, closing. Returns after findings that make the rest pointless.
void checkModule(Probe& probe);

// Opening what is not the module's.
void checkNames(Probe& probe);

// Supported lists and current-state snapshots of both sides.
void checkQueries(Probe& probe);

// Results of the control slots, and what becomes of their parameters.
void checkCalls(Probe& probe);

// Records: how they look, and that they come only for what is enabled.
void checkEvents(Probe& probe);

// Records come in time.
void checkLatency(Probe& probe);

// Calls from inside a callback, and from elsewhere while one is running.
void checkReentry(Probe& probe);

// Calls from several threads at once.
void checkThreads(Probe& probe);

// Closing while everything is enabled.
void checkClosing(Probe& probe);

}  // namespace modulecheck
