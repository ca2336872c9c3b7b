#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Holds a trace to the schema and to what viewers of the format take for granted.

    check_trace.py SCHEMA TRACE
"""

import json
import sys
from collections import defaultdict

from jsonschema import Draft202012Validator

schema, trace = (json.load(open(path)) for path in sys.argv[1:3])
Draft202012Validator.check_schema(schema)
findings = [f"{error.json_path}: {error.message:.200}"
            for error in Draft202012Validator(schema).iter_errors(trace)]
named, rows, slices, pairs = set(), set(), defaultdict(list), defaultdict(list)
for event in trace["traceEvents"]:
    row = event["pid"], event["tid"]
    if event["ph"] == "M":
        named.add(row if event["name"] == "thread_name" else (event["name"], event["pid"]))
        continue
    rows |= {row, ("process_name", row[0])}
    if event["ph"] == "X":
        # A row's slices lie one behind the other.
        if slices[row] and event["ts"] < sum(slices[row][-1]) - 1e-3:
            findings.append(f"overlaps the one before it: {event}")
        slices[row].append((event["ts"], event["dur"]))
    elif event["ph"] not in "iC":
        pairs["async" if event["ph"] in "be" else "flow", event["id"]].append(event)
findings += [f"has no name: {row}" for row in rows - named]
for (kind, _), events in pairs.items():
    phases, where = "".join(event["ph"] for event in events), [event["pid"] for event in events]
    # A pair may stay enabled to the end.
    if phases not in (("be", "b") if kind == "async" else ("sf",)) or (kind == "async") != (where[0] == where[-1]):
        findings.append(f"no begin and end: {events}")
    for event in events if kind == "flow" else ():
        if not any(ts <= event["ts"] <= ts + dur for ts, dur in slices[event["pid"], event["tid"]]):
            findings.append(f"lies in no slice: {event}")
sys.exit("\n".join(findings) or 0)
