#!/usr/bin/env python3
"""check_exports.py NM READELF LIBRARY: the library exports its two factories, nothing else, and
stays in memory after dlclose."""

import subprocess
import sys

FACTORIES = ["InputPluginFactory", "TranscoderPluginFactory"]


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main():
    nm, readelf, library = sys.argv[1:]
    lines = output_of(nm, "-D", "--defined-only", "-P", library).splitlines()
    exported = sorted((line.split()[0], line.split()[1]) for line in lines)
    expected = [(name, "T") for name in FACTORIES]
    failed = False
    if exported != expected:
        print(f"exports {exported}, expected {expected}")
        failed = True
    if "NODELETE" not in output_of(readelf, "--dynamic", "--wide", library):
        print("the flag NODELETE is missing")
        failed = True
    if not failed:
        print("exports:", " ".join(FACTORIES))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
