"""Make the table layer and the per-table sources of the server from the definitions.

    python3 schema/generator/generate.py --schema schema --out build/schema-autogensrc

Four steps, a module each: load the TOML files, validate them, lay the objects out, emit text. All
errors of all files are reported in one run, and nothing is written while there is one. A file that
would not change is left alone, so that the build compiles again only what did. A file in the output
directory that no table makes any more is removed.

--check stops before writing.
"""
import argparse
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # the source tree stays as it is

import emit
import expectations
import layout
import load
import validate


def main():
    parser = argparse.ArgumentParser(description="Make code from the table definitions.")
    parser.add_argument("--schema", required=True, help="directory of the definitions")
    parser.add_argument("--out", help="directory of the generated code")
    parser.add_argument("--check", action="store_true", help="validate only")
    args = parser.parse_args()
    if not args.check and not args.out:
        parser.error("--out is needed unless --check is given")

    errors = load.Errors()
    tables, _ = load.load(args.schema, errors)
    validate.validate(tables, errors)
    if not errors:  # a layout of references that lead nowhere would only add noise
        layout.compute(tables, errors)
        validate.check_layout(tables, errors)
    if not errors:
        expectations.check(tables, errors)
    if errors:
        print(*errors.lines, sep="\n", file=sys.stderr)
        print(f"{len(errors.lines)} errors in the definitions, nothing written", file=sys.stderr)
        return 1
    if args.check:
        print(f"{len(tables)} definitions are valid")
        return 0
    return write(Path(args.out), emit.emit(tables), len(tables))


def write(out, files, num_tables):
    out.mkdir(parents=True, exist_ok=True)
    changed = 0
    for name, text in files.items():
        path = out / name
        if not path.exists() or path.read_text() != text:
            path.write_text(text)
            changed += 1
    stale = [p for p in out.iterdir() if p.suffix in (".h", ".cpp") and p.name not in files]
    for path in stale:
        path.unlink()
    print(f"{num_tables} tables, {len(files)} files, {changed} written, {len(stale)} removed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
