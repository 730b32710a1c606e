#!/usr/bin/env python3
"""The dynamic symbols of the stripped libprovisioning.so are exactly those of a list.

    check-exports.py --library LIB --list LIST --doc DOC [--readelf R] [--strip S] [--cxxfilt C]
    check-exports.py --self-test ...same options...

Reads the symbols that a stripped copy of LIB defines for the dynamic linker (readelf --dyn-syms),
demangles them and compares them, as a multiset, with LIST (one demangled name per line, '#'
comments). Fails on a symbol that LIST does not hold, on one that LIST holds but the library does
not export, on any name of the POSIX backend's internals, the simulation or the test hooks, and
when DOC does not give the count as "exports N dynamic symbols". --update rewrites LIST.
--self-test shows that the check refuses an unlisted symbol and a forbidden one.
"""
import argparse
import collections
import os
import re
import shutil
import subprocess
import sys
import tempfile

# Names that must never leave the engine's library, whatever the list says.
FORBIDDEN = re.compile(
    r"ProcessReactor|ProcessSpawn|RunningCommand|ShellControl|ShellHooks|PrivateFile|"
    r"DevicePaths|Device::|Simulated|SlotState|UpdateSession|UpdateSteps|UpdateUpgrade|"
    r"StatusDbHooks|UpdateControllerHooks|INTERCEPTOR|TestHook|\bRESET|\b(ProvLog|FlashFile|"
    r"HttpResponseAnalysis|UriUtil|WgetUtil|Kt|KtFile|FileNode|CLI|CmdExec|DB|MGMT|DRIVER)::")


def exported(args):
    with tempfile.TemporaryDirectory() as scratch:
        copy = os.path.join(scratch, os.path.basename(args.library))
        shutil.copyfile(args.library, copy)
        subprocess.run([args.strip, copy], check=True)
        table = subprocess.run([args.readelf, "--dyn-syms", "-W", copy], check=True,
                               capture_output=True, text=True).stdout
    names = []
    for line in table.splitlines():
        fields = line.split()
        # Num: Value Size Type Bind Vis Ndx Name
        if len(fields) < 8 or not fields[0].rstrip(":").isdigit():
            continue
        if fields[6] == "UND" or fields[4] not in ("GLOBAL", "WEAK"):
            continue
        names.append(fields[7].split("@")[0])
    demangled = subprocess.run([args.cxxfilt], input="\n".join(names), check=True,
                               capture_output=True, text=True).stdout.splitlines()
    return sorted(demangled)


def listed(path):
    with open(path, encoding="utf-8") as handle:
        return sorted(line.rstrip("\n") for line in handle
                      if line.strip() and not line.startswith("#"))


def problems(actual, expected, doc_text):
    found = []
    have, want = collections.Counter(actual), collections.Counter(expected)
    for name in sorted((have - want).elements()):
        found.append("exported but not listed: " + name)
    for name in sorted((want - have).elements()):
        found.append("listed but not exported: " + name)
    for name in actual:
        # The symbol's own name, not the types of its parameters.
        if FORBIDDEN.search(name.split("(")[0]):
            found.append("an internal of the platform, the simulation or the tests: " + name)
    match = re.search(r"exports (\d+) dynamic symbols", doc_text)
    if not match:
        found.append("the documentation gives no count ('exports N dynamic symbols')")
    elif int(match.group(1)) != len(actual):
        found.append("the documentation says %s dynamic symbols, the library exports %d"
                     % (match.group(1), len(actual)))
    return found


def self_test(actual, doc_text):
    # A list without one of the symbols: that symbol is unlisted.
    missing = problems(actual, actual[1:], doc_text)
    if not any(p.startswith("exported but not listed: ") for p in missing):
        print("self-test: an unlisted symbol was not refused", file=sys.stderr)
        return 1
    # A planted internal is refused even when the list holds it.
    planted = actual + ["Kt::ShellControl::SET_TOOL(String const&, std::vector<String> const&)"]
    if not any("an internal" in p for p in problems(planted, planted, doc_text)):
        print("self-test: a planted internal was not refused", file=sys.stderr)
        return 1
    print("self-test: unlisted and internal symbols are refused")
    return 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--library", required=True)
    parser.add_argument("--list", required=True)
    parser.add_argument("--doc", required=True)
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("--strip", default="strip")
    parser.add_argument("--cxxfilt", default="c++filt")
    parser.add_argument("--update", action="store_true")
    parser.add_argument("--self-test", action="store_true")
    args = parser.parse_args()
    actual = exported(args)
    with open(args.doc, encoding="utf-8") as handle:
        doc_text = handle.read()
    if args.self_test:
        return self_test(actual, doc_text)
    if args.update:
        with open(args.list, "w", encoding="utf-8") as handle:
            handle.write("# The dynamic symbols of the stripped libprovisioning.so, demangled, one per\n"
                         "# line (a constructor or destructor appears once per variant). Written by\n"
                         "# tools/check-exports.py --update; a test compares the library with it.\n")
            handle.write("\n".join(actual) + "\n")
        print("%s: %d symbols" % (args.list, len(actual)))
        return 0
    found = problems(actual, listed(args.list), doc_text)
    for problem in found:
        print(problem, file=sys.stderr)
    if found:
        print("%d problems; after a deliberate change of the interface run with --update and "
              "give the new count in %s" % (len(found), args.doc), file=sys.stderr)
        return 1
    print("%d exported symbols, as listed" % len(actual))
    return 0


if __name__ == "__main__":
    sys.exit(main())
