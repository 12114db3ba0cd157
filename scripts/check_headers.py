#!/usr/bin/env python3
"""Compiles the public headers in each language mode clients use.

Every header is compiled alone, as a client's first include, by MinGW-w64 g++
as C++11, 14, 17 and 20 and by clang in MSVC mode against Wine's Windows
headers; the headers a C client gets (xkcombsd.h and the families it includes)
alone as C99 and, in MSVC mode, as C11. The i686 compiler, whose calling
conventions differ, compiles one file that includes every header, as C++11 and
C++20. Prints one line per failure; exits 1 if any.
"""
import concurrent.futures
import glob
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WINE = "/usr/include/wine/wine"


def msvc(language, standard):
    builtins = subprocess.run(["clang", "-print-resource-dir"], capture_output=True,
                              text=True, check=True).stdout.strip() + "/include"
    flags = ["clang", "--target=x86_64-pc-windows-msvc", "-fms-extensions", "-nostdinc",
             # Wine's winnt.h defines an inline under a name clang keeps for a builtin.
             "-D_InterlockedCompareExchange128=WineInterlockedCompareExchange128",
             "-isystem", f"{WINE}/msvcrt", "-isystem", f"{WINE}/windows", "-isystem", builtins,
             f"-std={standard}", "-x", language]
    if language == "c++":
        # The only C++ standard library on this machine is MinGW's.
        cxx = glob.glob("/usr/lib/gcc/x86_64-w64-mingw32/*-posix/include/c++")[0]
        flags += ["-isystem", cxx, "-isystem", f"{cxx}/x86_64-w64-mingw32"]
    return flags


def mingw(arch, language, standard):
    compiler = "g++" if language == "c++" else "gcc"
    return [f"{arch}-w64-mingw32-{compiler}-posix", f"-std={standard}", "-Wall", "-x", language]


def compile_source(mode, label, source):
    result = subprocess.run(mode + ["-fsyntax-only", "-Werror", "-I", f"{ROOT}/include", "-"],
                            input=source, capture_output=True, text=True)
    if result.returncode == 0:
        return None
    errors = [line for line in result.stderr.splitlines() if "error" in line] or [result.stderr]
    return f"FAIL {label}: {errors[0].strip()}"


def main():
    headers = sorted(os.path.relpath(p, f"{ROOT}/include")
                     for p in glob.glob(f"{ROOT}/include/xkcombsd/*.h"))
    umbrella = open(f"{ROOT}/include/xkcombsd/xkcombsd.h", encoding="utf-8").read()
    c_headers = ["xkcombsd/xkcombsd.h"] + re.findall(r"^#include <(xkcombsd/[^>]+)>", umbrella, re.M)
    everything = "".join(f"#include <{h}>\n" for h in headers)

    jobs = []
    modes = [(f"g++ {std}", mingw("x86_64", "c++", std), headers)
             for std in ("c++11", "c++14", "c++17", "c++20")]
    modes += [("gcc c99", mingw("x86_64", "c", "c99"), c_headers),
              ("clang-msvc c++17", msvc("c++", "gnu++17"), headers),
              ("clang-msvc c11", msvc("c", "c11"), c_headers)]
    for name, mode, chosen in modes:
        jobs += [(mode, f"[{name}] {h}", f"#include <{h}>\n") for h in chosen]
    for arch, standard in (("i686", "c++11"), ("i686", "c++20")):
        jobs.append((mingw(arch, "c++", standard), f"[{arch} {standard}] all headers", everything))

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 2) as pool:
        failures = [f for f in pool.map(lambda job: compile_source(*job), jobs) if f]
    for failure in failures:
        print(failure)
    print(f"check_headers: {len(headers)} headers, {len(jobs)} compilations, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
