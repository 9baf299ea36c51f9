#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Checks a vorta --json output (standard input) against its committed schema
and the tool's key style: every key of the tool's own is lowerCamelCase; the
clip attribute blocks ("attributes") keep their own keys as data.

    validate_json.py SCHEMA < OUTPUT
    validate_json.py --schemas DIR FILE...   each FILE named NUMBER@COMMAND.json
"""
import json
import os
import re
import sys

import jsonschema

KEY = re.compile(r"^[a-z][a-zA-Z0-9]*$")


def keys(value, path, problems):
    if isinstance(value, dict):
        for key, item in value.items():
            if not KEY.match(key):
                problems.append("%s: key '%s' is not lowerCamelCase" % (path or "/", key))
            if key != "attributes":
                keys(item, path + "/" + key, problems)
    elif isinstance(value, list):
        for index, item in enumerate(value):
            keys(item, "%s/%d" % (path, index), problems)


def check(schema, text):
    try:
        instance = json.loads(text)
    except ValueError as e:
        return ["not JSON: %s" % e]
    problems = []
    validator = jsonschema.validators.validator_for(schema)(schema)
    for error in sorted(validator.iter_errors(instance), key=lambda e: list(e.path)):
        problems.append("/%s: %s" % ("/".join(str(p) for p in error.path), error.message))
    keys(instance, "", problems)
    return problems


def load(path):
    with open(path, encoding="utf-8") as f:
        return json.load(f)


def main():
    if sys.argv[1] == "--schemas":
        failed = 0
        for path in sys.argv[3:]:
            command = os.path.basename(path).split("@", 1)[1][: -len(".json")]
            with open(path, encoding="utf-8") as f:
                text = f.read()
            problems = check(load(os.path.join(sys.argv[2], command + ".schema.json")), text)
            for problem in problems:
                print("%s (vorta %s): %s" % (os.path.basename(path), command, problem))
            if problems:
                print("--- JSON:\n" + text)
                failed += 1
        return 1 if failed else 0
    problems = check(load(sys.argv[1]), sys.stdin.read())
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
