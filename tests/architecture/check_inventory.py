#!/usr/bin/env python3
"""check_inventory.py CTEST BINARY BUILD SUITES: no test of the binary is forgotten.

Every test of BINARY is a CTest test of BUILD with one kind label, and every suite in the file
SUITES, which lists what zel_test_labels was given, exists in the binary.
"""

import json
import re
import subprocess
import sys
from collections import Counter
from pathlib import Path

KINDS = {"unit", "media", "net", "host", "corpus", "long"}


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def tests_of(binary):
    """(suite, full name) of each test; comments behind # hold types and parameters."""
    suite = ""
    for line in output_of(binary, "--gtest_list_tests").splitlines():
        text = line.split("#")[0].rstrip()
        if re.fullmatch(r"\S+\.", text):
            suite = text
        elif text.startswith("  "):
            yield suite[:-1], suite + text.strip()


def main():
    ctest, binary, build, suites_file = sys.argv[1:]
    faults = []
    in_binary = list(tests_of(binary))
    known = json.loads(output_of(ctest, "--test-dir", build, "-N", "--show-only=json-v1"))["tests"]
    runs = Counter()
    for test in known:
        command = test.get("command", [])
        for argument in command[1:]:
            if argument.startswith("--gtest_filter=") and Path(command[0]) == Path(binary):
                name = argument.removeprefix("--gtest_filter=")
                runs[name] += 1
                labels = next((entry["value"] for entry in test["properties"]
                               if entry["name"] == "LABELS"), [])
                if not KINDS & set(labels):
                    faults.append(f"{name} has no kind label, only {labels}")
    for _, name in in_binary:
        if runs[name] != 1:
            faults.append(f"{name} is {runs[name]} times in CTest")
    if not in_binary:
        faults.append("the binary lists no test")

    # An instance in front and a number behind belong to parameterised and typed suites.
    present = {part for suite, _ in in_binary for part in (suite, *suite.split("/"))}
    for suite in Path(suites_file).read_text(encoding="utf-8").split():
        if suite not in present:
            faults.append(f"zel_test_labels names the suite {suite}, which does not exist")

    print("\n".join(faults) if faults else f"{len(in_binary)} tests, each once in CTest")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
