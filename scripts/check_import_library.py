#!/usr/bin/env python3
"""Checks that an import library carries every export of its DLL.

Links a small program that refers to every export named in the module-definition
file through the import library, then reads the program's import table: every
export must be imported, by ordinal where the expected table says NONAME and by
its name otherwise. This works for both kinds of import library the package
ships (MinGW's and the short form MSVC-style linkers use) and needs no Wine.
Exits 1 with one line per difference.
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from check_exports import read_dll, read_expected, report  # noqa: E402


def read_def(path):
    """Export names as the .def writes them (with i686 decorations), by ordinal."""
    names = {}
    with open(path, encoding="utf-8") as f:
        for line in f:
            m = re.match(r"\s*([A-Za-z_][\w@]*)\s+@(\d+)", line.split(";", 1)[0])
            if m:
                names[int(m.group(2))] = m.group(1)
    return names


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--objdump", required=True)
    parser.add_argument("--def", dest="deffile", required=True)
    parser.add_argument("--library", required=True)
    parser.add_argument("--expected", required=True)
    parser.add_argument("--dll", default="xkcombsd.dll")
    args = parser.parse_args()

    wanted, _ = read_expected(args.expected)
    symbols = read_def(args.deffile)
    i686 = os.path.basename(args.compiler).startswith("i686")
    # x86_64 import symbols are __imp_Name; i686 ones add the C underscore.
    prefix = "__imp__" if i686 else "__imp_"
    stripped = {ordinal: re.sub(r"@\d+$", "", name) if not i686 else name
                for ordinal, name in symbols.items()}
    source = "".join(f'extern void* s{o} __asm__("{prefix}{n}");\n' for o, n in stripped.items())
    source += "void* const all[] = {" + ", ".join(f"&s{o}" for o in stripped) + "};\n"
    source += "int main(void) { return all[0] == 0; }\n"

    with tempfile.TemporaryDirectory() as scratch:
        c_file, exe = os.path.join(scratch, "refs.c"), os.path.join(scratch, "refs.exe")
        with open(c_file, "w", encoding="utf-8") as f:
            f.write(source)
        linked = subprocess.run([args.compiler, c_file, "-o", exe, args.library],
                                capture_output=True, text=True)
        if linked.returncode != 0:
            print(f"{args.library}: a program using every export does not link:\n{linked.stderr}",
                  file=sys.stderr)
            return 1
        _, imports = read_dll(args.objdump, exe)

    have = imports.get(args.dll.lower(), [])
    by_ordinal = {number for number, ordinal, _ in have if ordinal}
    by_name = {name for _, ordinal, name in have if not ordinal}
    problems = []
    for ordinal, name in sorted(wanted.items()):
        if name is None and ordinal not in by_ordinal:
            problems.append(f"ordinal {ordinal} is not imported by ordinal")
        elif name is not None and name not in by_name:
            problems.append(f"'{name}' (ordinal {ordinal}) is not imported by name")
    return report(args.library, problems)


if __name__ == "__main__":
    sys.exit(main())
