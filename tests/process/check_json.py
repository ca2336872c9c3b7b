#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Holds JSON objects on standard input to a schema, and the schema to letting nothing else pass.

    check_json.py SCHEMA [WHAT]...    WHAT: definitions that need not come
"""

import json
import re
import sys

from jsonschema import Draft202012Validator, RefResolver
from jsonschema.exceptions import best_match

schema = json.load(open(sys.argv[1]))
missing = {choice["$ref"].split("/")[-1] for choice in schema.get("oneOf", [])} - set(sys.argv[2:])
findings = []


def check_strict(node, where):
    for key, value in node.items() if isinstance(node, dict) else enumerate(node):
        if isinstance(value, (dict, list)):
            check_strict(value, f"{where}/{key}")
    if isinstance(node, dict) and node.get("type") == "object":
        optional = set(node["properties"]) - set(node["required"])
        if node.get("additionalProperties") is not False or any(
                not re.fullmatch(r".*_name|activity|environment|activities|environments", key)
                for key in optional):
            findings.append(f"{where} lets other members pass")


Draft202012Validator.check_schema(schema)
check_strict(schema, "#")
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
