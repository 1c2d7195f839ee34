"""Validates a CycloneDX 1.5 JSON document against the official schema files
(bom-1.5, spdx and jsf, as the CycloneDX library's npm package ships them).

usage: validate_cdx.py SCHEMA_DIR DOCUMENT
"""
import json
import sys

import jsonschema


def main():
    schema_dir, doc_path = sys.argv[1], sys.argv[2]

    def load(name):
        with open(f"{schema_dir}/{name}", encoding="utf-8") as f:
            return json.load(f)

    bom = load("bom-1.5.SNAPSHOT.schema.json")
    spdx = load("spdx.SNAPSHOT.schema.json")
    jsf = load("jsf-0.82.SNAPSHOT.schema.json")
    # The schema refers to its neighbours by these names.
    store = {
        "spdx.schema.json": spdx, "jsf-0.82.schema.json": jsf,
        "http://cyclonedx.org/schema/spdx.schema.json": spdx,
        "http://cyclonedx.org/schema/jsf-0.82.schema.json": jsf,
    }
    for s in (spdx, jsf):
        if "$id" in s:
            store[s["$id"]] = s
    resolver = jsonschema.RefResolver.from_schema(bom, store=store)
    with open(doc_path, encoding="utf-8") as f:
        doc = json.load(f)
    validator = jsonschema.Draft7Validator(bom, resolver=resolver, format_checker=jsonschema.FormatChecker())
    errors = sorted(validator.iter_errors(doc), key=lambda e: list(e.absolute_path))
    for e in errors[:20]:
        print(f"{'/'.join(map(str, e.absolute_path))}: {e.message}")
    if errors:
        print(f"{len(errors)} schema error(s)")
        return 1
    print(f"valid CycloneDX 1.5: {len(doc.get('components', []))} components")
    return 0


if __name__ == "__main__":
    sys.exit(main())
