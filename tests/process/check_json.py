#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Holds JSON on standard input to a schema. Arguments: its name, definitions that need not come."""
import json
import sys
from pathlib import Path
from jsonschema import Draft202012Validator, RefResolver
from jsonschema.exceptions import best_match

file = Path(__file__).parents[2] / f"docs/schemas/{sys.argv[1]}.json"
schema = json.loads(file.read_text())
missing = {choice["$ref"].split("/")[-1] for choice in schema.get("oneOf", [])} - set(sys.argv[2:])
closed = '"properties": {', '"additionalProperties": false'
findings = [] if len({file.read_text().count(text) for text in closed}) == 1 else ["some object is open"]
text = sys.stdin.read()
while text := text.lstrip():
    value, end = json.JSONDecoder().raw_decode(text)
    text = text[end:]
    what = value.get("what")
    missing.discard(what)
    part = schema["$defs"].get(what, {"not": {}}) if what else schema
    for error in Draft202012Validator(part, RefResolver("", schema)).iter_errors(value):
        error = best_match([error])  # of alternatives, the one that comes closest
        findings.append(f"{what} {error.json_path}: {error.message:.200}")
sys.exit("\n".join(findings + [f"no {what} came" for what in sorted(missing)]) or 0)
