#!/usr/bin/env python3
"""zolgen: turns the schema's TOML families into C++ entity, value and enumeration classes.

Usage: zolgen.py --out DIR SCHEMA.toml [SCHEMA.toml ...]
For each family F it writes DIR/include/ZolGen/F.h, DIR/include/ZolGen/FJson.h, DIR/src/F.cpp
and DIR/tests/F_conformance.cpp, each only when its content changed.
"""

import argparse
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from emit import FamilyEmitter  # noqa: E402
from model import SchemaError, load  # noqa: E402


def write_if_changed(path, text):
    path = Path(path)
    if path.exists() and path.read_text() == text:
        return False
    path.parent.mkdir(parents=True, exist_ok=True)
    tmp = path.with_suffix(path.suffix + ".tmp")
    tmp.write_text(text)
    tmp.replace(path)
    return True


def generate(schema_paths):
    """Returns {relative output path: text} for every family."""
    schema = load(sorted(schema_paths, key=lambda p: Path(p).name))
    files = {}
    for fam in schema.families:
        em = FamilyEmitter(schema, fam)
        files[f"include/ZolGen/{fam.name}.h"] = em.header()
        files[f"include/ZolGen/{fam.name}Json.h"] = em.json_header()
        files[f"src/{fam.name}.cpp"] = em.source()
        files[f"tests/{fam.name}_conformance.cpp"] = em.conformance()
    return files


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--out", required=True)
    ap.add_argument("schemas", nargs="+")
    args = ap.parse_args(argv)
    try:
        files = generate(args.schemas)
    except (SchemaError, ValueError) as e:
        print(f"zolgen: {e}", file=sys.stderr)
        return 1
    for rel, text in files.items():
        write_if_changed(Path(args.out) / rel, text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
