// SPDX-License-Identifier: Apache-2.0
// What --help says of activityctl and of each of its commands.
#pragma once

namespace activityctl {

struct Help {
    const char* name;
    const char* summary;  // in the list of commands, and on top of the command's own help
    const char* details;  // below its options: what one must know, and an example
};

constexpr const char* kGeneralHelp = R"(
Examples:
  activityctl status
  activityctl watch walking:1 --latency 2s
  activityctl watch walking:1@5s running still:2 --json --count 100
  activityctl top
  activityctl --interface 1.0 watch still:1 --for 1min
  activityctl env init home && activityctl env watch home:1

PAIR is ACTIVITY[:EVENT][@LATENCY]: an activity by name or number, event type 1 or 2 (without it:
both), and how long reports may be held back (min, s, ms, us, ns). The service rounds an activity's
latency down to whole seconds, at least one. activityctl COMMAND --help explains a command.

Exit status:
  0  done                         3  nobody serves the instance
  1  the service refused          4  the service or its module lacks what is asked for
  2  wrong command line           5  the service died or a call failed
  6  the output could not be written
)";

constexpr Help kStatusHelp{
        "status", "Versions, interfaces, supported lists and current state",
        R"(A side that the native module does not offer is named as such, and no failure.

Example:
  activityctl status --json | jq '.activity.activities[].name'
)"};

constexpr Help kDumpHelp{
        "dump", "What the service keeps and does: clients, requests, pairs, locks, calls",
        R"(For whoever wonders why events come or stay away. It tells which lock could not be had and who
holds it, pairs that the module has enabled and nobody asks for ("orphans", which sweep withdraws),
and requests whose process has no callback. It changes nothing, and does not wait for clients or
for the module: names of activities are left out when the module does not give them at once.
With --raw times are nanoseconds of CLOCK_MONOTONIC instead of ages.

Example:
  activityctl dump --json | jq '.activity.orphans'
)"};

constexpr Help kTopHelp{
        "top", "Clients, pairs and calls under way, anew every second",
        R"(On a terminal a table that q or Ctrl-C ends; it outlives the service and shows the next one.
Elsewhere it prints a snapshot a second, with --json one object each, until its reader goes.
REC/S is the records a second that a client got since the last refresh, LAST and WORST how long its callback took.
A client in dim letters is shown as it was, because the table that it stands in is locked.

Example:
  activityctl top --count 1 --json | jq '.clients[] | {pid, records_per_second}'
)"};

constexpr Help kSweepHelp{
        "sweep", "Withdraw orphans: pairs that the module has enabled and nobody asks for",
        R"(A client that dies takes its requests along, but the module is not told. sweep enables such a
pair itself, with a latency of seven days, and disables it, which the module is told. Without a
PAIR it does so for every orphan; a pair that is none is refused.

It is a version 1.1 client meanwhile, so that its request goes with it should it be killed in
between. If the module reports an event of the pair at that very moment, this process stays in the
service's report list until the service ends: every version 1.0 client then gets one more empty
list with each batch.

Example:
  activityctl sweep --dry-run && activityctl sweep still:1
)"};

constexpr Help kTimelineHelp{
        "timeline", "Draw a trace of clients and module as a picture",
        R"(The trace is one of JSON trace events, as record and the demo write it; the picture an SVG that any browser
shows. Each client has a lane, and so has the module: bars tell what is asked for and what the
module has enabled, marks which events came and who got them, crosses who died. No service is asked.

A column is one moment, and the axis tells its time. Columns are as wide as what stands in them, and
long waits are cut short and marked. With --even the same story makes the same picture.

Example:
  activityctl timeline trace.json -o trace.svg
)"};

constexpr Help kRecordHelp{
        "record", "Write what a client can see as a trace, until Ctrl-C",
        R"(A client like watch, whose records and requests stand in the file. What others ask for, who comes
and goes, and what the module has enabled is taken from a dump of the service every 100 ms, and from
the calls that it remembers. What lies between two dumps is missing, and the file says how well was
looked. Who goes without having withdrawn its requests is taken for dead.

FILE appears when the record ends, whole or not at all: on Ctrl-C, SIGTERM or SIGHUP, after --for or
--count, when the service dies, or when the record fills 64 MB of memory. timeline draws it, and viewers of
JSON trace events open it.

Example:
  activityctl record trace.json walking:1@5s --for 1min && activityctl timeline trace.json -o trace.svg
)"};

constexpr Help kListHelp{
        "list", "Supported activities",
        R"(The number before a name says the same as the name wherever a PAIR is asked for.

Example:
  activityctl list
)"};

constexpr Help kCurrentHelp{"current", "The records that are current now",
                            R"(They are the module's, whoever has enabled what.

Example:
  activityctl current --raw
)"};

constexpr Help kWatchHelp{
        "watch", "Enable pairs and print events until Ctrl-C",
        R"(Without a PAIR nothing is enabled: extended events come anyway, and through version 1.0
everybody's plain ones. On Ctrl-C, SIGTERM or SIGHUP it disables what it enabled. With --json a
line with "what":"ready" tells that all is enabled.

Example:
  activityctl watch walking:1@5s running --count 10
)"};

constexpr Help kEnableHelp{
        "enable", "Enable pairs and hold them until Ctrl-C",
        R"(A request belongs to the process that made it, so this one stays, registered through its
interface version, until it is told to go.

Example:
  activityctl enable walking:1@5s --for 10min
)"};

constexpr Help kDisableHelp{
        "disable", "Withdraw a request of this very process (see below)",
        R"(A fresh process has no request, so the service refuses unless this process has got the process
id of one that left a request behind. To disable while going on, give watch or enable --control
a line: disable PAIR. What a dead client left enabled in the module is withdrawn by sweep.

Example:
  echo disable walking:1 | activityctl watch walking --control
)"};

constexpr Help kFlushHelp{
        "flush", "Have the module deliver what it holds back",
        R"(For all clients: what the module has collected comes at once, whatever latency was asked for.

Example:
  activityctl flush
)"};

constexpr Help kEnvHelp{
        "env", "The same for environments",
        R"(Control calls go straight to the native module: nothing is merged, counted or undone when a
process ends, and every watcher gets every event.

Example:
  activityctl env init home && activityctl env watch home:1
)"};

constexpr Help kEnvListHelp{
        "list", "Supported environments",
        R"(The number before a name says the same as the name wherever an environment is asked for.

Example:
  activityctl env list
)"};

constexpr Help kEnvCurrentHelp{"current", "The records that are current now",
                               R"(They are the module's, whoever has enabled what.

Example:
  activityctl env current --json
)"};

constexpr Help kEnvInitHelp{
        "init", "Initialise environments",
        R"(The service passes it on and keeps no record of it; a module may want it before enable.

Example:
  activityctl env init home --params 1,2,3,4 --name kitchen
)"};

constexpr Help kEnvExitHelp{"exit", "The opposite of init",
                            R"(Whoever initialised the environment.

Example:
  activityctl env exit home
)"};

constexpr Help kEnvEnableHelp{
        "enable", "Enable pairs; they stay enabled",
        R"(The service keeps no record of it, so the pair stays enabled when this command has ended, until
anybody disables it.

Example:
  activityctl env enable home:1@5s
)"};

constexpr Help kEnvDisableHelp{"disable", "Disable pairs, whoever enabled them",
                               R"(Unlike requests for activities, environments are everybody's.

Example:
  activityctl env disable home
)"};

constexpr Help kEnvWatchHelp{
        "watch", "Print events until Ctrl-C, of pairs enabled meanwhile if any",
        R"(Every watcher gets every event, whoever enabled its pair. What this command was given is
disabled on leaving, also for others that had enabled it.

Example:
  activityctl env watch home:1@0 --count 1
)"};

constexpr Help kEnvRecordHelp{
        "record", "Write what a client can see as a trace, until Ctrl-C",
        R"(As record does, with the records that watchers of environments get. The service keeps no book of who
asked for an environment, so only this process's own requests stand in the file.

Example:
  activityctl env record trace.json home:1@0 --for 1min
)"};

constexpr Help kScenarioHelp{
        "scenario", "Scenario files of the simulator",
        R"(No service is needed. The simulator is a native module that plays such a file instead of sensing.

Example:
  activityctl scenario check commuter.scn
)"};

constexpr Help kScenarioCheckHelp{
        "check", "Everything that is wrong with a scenario, or what it plays and when",
        R"(Mistakes are all named at once, each with file and line; the exit status is 2 then. Without any it
prints, at its times in the file, what would be reported if all were enabled and nothing held back,
where it waits for the control FIFO, and what slots are made to answer.

Example:
  activityctl scenario check --json commuter.scn | jq 'select(.what == "reported").record'
)"};

}  // namespace activityctl
