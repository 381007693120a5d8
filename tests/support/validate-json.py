#!/usr/bin/env python3
"""Checks a JSON document against a JSON Schema: exit 0 when it conforms, 1 (with
the first problem on standard error) when it does not or is not JSON."""
import json
import sys

import jsonschema


def main():
    schema_file, document_file = sys.argv[1], sys.argv[2]
    with open(schema_file, encoding="utf-8") as f:
        schema = json.load(f)
    try:
        with open(document_file, encoding="utf-8") as f:
            document = json.load(f)
        jsonschema.Draft202012Validator(schema).validate(document)
    except (ValueError, jsonschema.ValidationError) as e:
        print(f"{document_file}: {str(e).splitlines()[0]}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
