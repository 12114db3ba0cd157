#!/usr/bin/env python3
"""Checks a built DLL against its expected export and import tables.

The expected file has one row per line ('#' starts a comment):
  export <ordinal> <name> [NONAME]      an export; NONAME rows must carry no name
  import <dll> [ordinals <n> ...]       a DLL the module may import from; with
                                        'ordinals', only those ordinals, by ordinal
Every export of the DLL must be listed and every listed export present; every
imported DLL must be listed. Exits 1 with one line per difference.
"""
import argparse
import re
import subprocess
import sys


def read_expected(path):
    exports, imports = {}, {}
    with open(path, encoding="utf-8") as f:
        for number, raw in enumerate(f, 1):
            words = raw.split("#", 1)[0].split()
            if not words:
                continue
            if words[0] == "export" and len(words) in (3, 4):
                noname = len(words) == 4
                if noname and words[3] != "NONAME":
                    sys.exit(f"{path}:{number}: expected NONAME, got {words[3]}")
                exports[int(words[1])] = None if noname else words[2]
            elif words[0] == "import" and len(words) >= 2:
                ordinals = None
                if len(words) > 2:
                    if words[2] != "ordinals":
                        sys.exit(f"{path}:{number}: expected 'ordinals'")
                    ordinals = {int(w) for w in words[3:]}
                imports[words[1].lower()] = ordinals
            else:
                sys.exit(f"{path}:{number}: cannot read '{raw.rstrip()}'")
    return exports, imports


def read_dll(objdump, dll):
    text = subprocess.run([objdump, "-p", dll], check=True,
                          capture_output=True, text=True).stdout
    exports, imports = {}, {}
    base = None
    section = None
    current_dll = None
    for line in text.splitlines():
        m = re.match(r"Export Address Table -- Ordinal Base (\d+)", line)
        if m:
            base, section = int(m.group(1)), "addresses"
            continue
        if line.startswith("[Ordinal/Name Pointer] Table"):
            section = "names"
            continue
        m = re.match(r"\s*DLL Name: (\S+)", line)
        if m:
            current_dll, section = m.group(1).lower(), "imports"
            imports[current_dll] = []
            continue
        if not line.strip():
            section = None
            continue
        if section == "addresses":
            m = re.match(r"\s*\[\s*\d+\] \+base\[\s*(\d+)\]", line)
            if m:
                exports.setdefault(int(m.group(1)), None)
        elif section == "names":
            m = re.match(r"\s*\[\s*(\d+)\] (\S+)", line)
            if m:
                exports[base + int(m.group(1))] = m.group(2)
        elif section == "imports":
            # "<thunk> <hint/ordinal> <name>"; an import by ordinal has the top bit
            # set in its thunk, the ordinal in the low 16 bits, and no name.
            m = re.match(r"\s*([0-9a-fA-F]+)\s+([0-9a-fA-F]+)\s+(\S+)\s*$", line)
            if m:
                by_ordinal = m.group(3) == "<none>"
                number = int(m.group(1), 16) & 0xFFFF if by_ordinal else int(m.group(2))
                imports[current_dll].append((number, by_ordinal, m.group(3)))
    return exports, imports


def report(subject, problems):
    """Prints one line per problem; the exit code of a check."""
    for p in problems:
        print(f"{subject}: {p}", file=sys.stderr)
    return 1 if problems else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--objdump", required=True)
    parser.add_argument("--dll", required=True)
    parser.add_argument("--expected", required=True)
    args = parser.parse_args()

    want_exports, allowed_imports = read_expected(args.expected)
    have_exports, have_imports = read_dll(args.objdump, args.dll)
    problems = []

    for ordinal in sorted(set(want_exports) | set(have_exports)):
        label = lambda name: "by ordinal only" if name is None else f"as '{name}'"
        if ordinal not in have_exports:
            problems.append(f"ordinal {ordinal} ({want_exports[ordinal] or 'NONAME'}) is not exported")
        elif ordinal not in want_exports:
            problems.append(f"ordinal {ordinal} is exported {label(have_exports[ordinal])} but not expected")
        elif want_exports[ordinal] != have_exports[ordinal]:
            problems.append(f"ordinal {ordinal} is exported {label(have_exports[ordinal])}, "
                            f"expected {label(want_exports[ordinal])}")

    for dll, entries in have_imports.items():
        if dll not in allowed_imports:
            problems.append(f"imports from {dll}, which it must not")
            continue
        ordinals = allowed_imports[dll]
        if ordinals is None:
            continue
        for number, by_ordinal, name in entries:
            if not by_ordinal:
                problems.append(f"imports '{name}' from {dll} by name, not by ordinal")
            elif number not in ordinals:
                problems.append(f"imports ordinal {number} from {dll}, which is not allowed")

    return report(args.dll, problems)


if __name__ == "__main__":
    sys.exit(main())
