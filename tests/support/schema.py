#!/usr/bin/env python3
"""schema.py SCHEMA < ANSWER: checks a JSON text against the few words of JSON Schema that docs/*.schema.json use."""
import json
import sys

TYPES = {"object": dict, "array": list, "string": str, "boolean": bool, "integer": int, "number": (int, float),
         "null": type(None)}


def is_type(value, name):
    return isinstance(value, TYPES[name]) and (name == "boolean" or not isinstance(value, bool))


def check(value, schema, where):
    names = schema.get("type", [])
    names = [names] if isinstance(names, str) else names
    if names and not any(is_type(value, name) for name in names):
        sys.exit(f"{where}: {value!r} is no {' or '.join(names)}")
    if "enum" in schema and value not in schema["enum"]:
        sys.exit(f"{where}: {value!r} is none of {schema['enum']}")
    if isinstance(value, dict):
        missing = [name for name in schema.get("required", []) if name not in value]
        extra = [name for name in value if name not in schema.get("properties", {})]
        if missing or extra:
            sys.exit(f"{where}: missing {missing}, not described {extra}")
        for name, member in value.items():
            check(member, schema["properties"][name], f"{where}.{name}")
    if isinstance(value, list):
        for number, item in enumerate(value):
            check(item, schema["items"], f"{where}[{number}]")


check(json.load(sys.stdin), json.load(open(sys.argv[1], encoding="utf-8")), "answer")
