#!/usr/bin/env python3
"""Checks who may include whom, from the include lines.

    check_includes.py ROOT          every source below ROOT
    check_includes.py --self-test   the rules themselves, on small trees with one wrong line each

Prints one line for each fault and ends with 1 when there is any.
"""

import re
import sys
import tempfile
from pathlib import Path

# The floors, from the ground up. A file includes its own floor and those before it.
FLOORS = ["dax", "utils", "ffmpeg", "plugin", "buffers", "middle", "input", "factory"]

# First fitting prefix wins. encoder/ and network/ share a floor and are kept apart by a rule.
ROOMS = [
    ("common/dax/", "dax"),
    ("common/utils/", "utils"),
    ("common/ffmpeg/", "ffmpeg"),
    ("plugin/PluginFactory.cpp", "factory"),
    ("plugin/", "plugin"),
    ("buffers/", "buffers"),
    ("encoder/", "middle"),
    ("network/", "middle"),
    ("input/", "input"),
]

# May include anything of the project; nothing that is shipped may include them.
OUTSIDE = ("tests/", "bench/", "fuzz/")

# What input/ may take from encoder/.
INPUT_FROM_ENCODER = {"encoder/PacketQueue.h", "encoder/FFMpegStreamingProfile.h"}

# Folders whose files are checked; a folder that is missing has no files yet.
CHECKED = ["common", "plugin", "buffers", "encoder", "network", "input", "host", *(
    folder.rstrip("/") for folder in OUTSIDE)]

INCLUDE = re.compile(r'^\s*#\s*include\s*(?:"([^"]+)"|<([^>]+)>)')
CONDITION = re.compile(r'__has_include\s*\(\s*(?:"([^"]+)"|<([^>]+)>)\s*\)')


def floor_of(path):
    for prefix, floor in ROOMS:
        if path.startswith(prefix):
            return floor
    return None


def is_sdk(path):
    """Headers that are installed for hosts: header-only, and closed under inclusion."""
    if path.startswith("plugin/") and path.endswith(".h"):
        return path != "plugin/Vocabulary.h"
    return path == "common/utils/StdString.h" or path.startswith("common/dax/")


def fault_of(includer, included):
    """Why `includer` must not include the project file `included`; None when it may."""
    if includer.startswith(OUTSIDE):
        return None
    if included.startswith(OUTSIDE):
        return "shipped code includes code that is not shipped"
    if includer.startswith("host/"):
        if included.startswith("host/") or is_sdk(included):
            return None
        return "host/ includes only what is installed for hosts"
    if included.startswith("host/"):
        return "only tests include host/"
    if is_sdk(includer) and not is_sdk(included):
        return "a header that is installed for hosts includes only such headers"
    above, below = floor_of(includer), floor_of(included)
    if above is None or below is None:
        return "no floor is known for this file"
    if FLOORS.index(below) > FLOORS.index(above):
        return f"{above} must not include {below}, which stands above it"
    rooms = {includer.split("/")[0], included.split("/")[0]}
    if rooms == {"encoder", "network"}:
        return "encoder/ and network/ do not know each other"
    if (includer.startswith("input/") and included.startswith("encoder/")
            and included not in INPUT_FROM_ENCODER):
        return "input/ takes only the packet queue and the profile from encoder/"
    return None


def library_fault_of(includer, header):
    """Why `includer` must not include the header <header>; None when it may."""
    if is_sdk(includer) and ("/" in header or header.endswith((".hpp", "plist.h"))):
        return "a header that is installed for hosts needs the standard library only"
    return None


def check(root):
    faults = []
    project = {folder for folder in CHECKED if (root / folder).is_dir()}
    for folder in CHECKED:
        for file in sorted((root / folder).rglob("*")):
            if file.suffix not in (".h", ".cpp"):
                continue
            includer = file.relative_to(root).as_posix()
            for number, line in enumerate(file.read_text(encoding="utf-8").splitlines(), 1):
                match = INCLUDE.match(line) or CONDITION.search(line)
                if not match:
                    continue
                quoted, bracketed = match.groups()
                conditional = not INCLUDE.match(line)
                name = quoted or bracketed
                known = name.split("/")[0] in project and "/" in name
                if bracketed and known and (root / name).is_file():
                    fault = "a project file is included with quotes"
                elif bracketed:
                    fault = library_fault_of(includer, name)
                elif includer.startswith("tests/sdk/"):
                    fault = None  # an outside program: it sees the installed folder, not this tree
                elif not known:
                    fault = "a project file is included from the root of the tree"
                elif not conditional and not (root / name).is_file() and not guarded(file, name):
                    fault = "no such file"
                else:
                    fault = fault_of(includer, name)
                if fault:
                    faults.append(f"{includer}:{number}: {name}: {fault}")
    return faults


def guarded(file, name):
    """A file that is missing so far may be included behind __has_include."""
    return f'__has_include("{name}")' in file.read_text(encoding="utf-8")


# One wrong include line each, with a word of the fault that must be found.
WRONG = [
    ("common/dax/Variant.h", '#include "common/utils/Clock.h"', "installed for hosts"),
    ("common/utils/Clock.cpp", '#include "common/ffmpeg/Handles.h"', "above it"),
    ("common/ffmpeg/Handles.cpp", '#include "plugin/PluginTypes.h"', "above it"),
    ("plugin/Vocabulary.cpp", '#include "buffers/Ring.h"', "above it"),
    ("plugin/SamplePacket.h", '#include "plugin/Vocabulary.h"', "installed for hosts"),
    ("plugin/SamplePacket.h", '#include "common/utils/Clock.h"', "installed for hosts"),
    ("plugin/SamplePacket.h", "#include <libavutil/pixfmt.h>", "standard library"),
    ("plugin/SamplePacket.h", "#include <boost/function.hpp>", "standard library"),
    ("common/utils/StdString.h", '#include "common/utils/Clock.h"', "installed for hosts"),
    ("buffers/Ring.cpp", '#include "network/HTTPClient.h"', "above it"),
    ("network/HTTPClient.cpp", '#include "encoder/PacketQueue.h"', "do not know each other"),
    ("network/windleradio/Radio.cpp", '#include "encoder/PacketQueue.h"', "do not know"),
    ("encoder/PacketQueue.h", '#include "network/HTTPClient.h"', "do not know each other"),
    ("encoder/PacketQueue.h", '#include "input/FFMpegInput.h"', "above it"),
    ("network/HTTPClient.cpp", '#include "input/FFMpegInput.h"', "above it"),
    ("input/FFMpegInput.cpp", '#include "encoder/BasicMuxer.h"', "packet queue and the profile"),
    ("input/FFMpegInput.cpp", '#include "plugin/PluginFactory.cpp"', "above it"),
    ("input/FFMpegInput.cpp", '#include "tests/support/Host.h"', "not shipped"),
    ("input/FFMpegInput.cpp", '#include "host/Records.h"', "only tests include host"),
    ("input/FFMpegInput.cpp", '#include "FFMpegInput.h"', "from the root"),
    ("input/FFMpegInput.cpp", '#include "input/Absent.h"', "no such file"),
    ("input/FFMpegInput.cpp", "#include <input/FFMpegInput.h>", "with quotes"),
    ("input/FFMpegInput.cpp", '  #  include "encoder/BasicMuxer.h"', "packet queue"),
    ("host/main.cpp", '#include "common/utils/Clock.h"', "installed for hosts"),
    ("host/main.cpp", '#include "plugin/Vocabulary.h"', "installed for hosts"),
    ("host/main.cpp", '#include "input/FFMpegInput.h"', "installed for hosts"),
    ("host/main.cpp", '#include "tests/support/Host.h"', "not shipped"),
]

RIGHT = [
    ("plugin/PluginFactory.cpp", '#include "input/FFMpegInput.h"'),
    ("plugin/PluginFactory.cpp", '#include "encoder/BasicMuxer.h"'),
    ("plugin/PluginFactory.cpp", '#if __has_include("encoder/Later.h")\n#include "encoder/Later.h"'),
    ("input/FFMpegInput.cpp", '#include "encoder/PacketQueue.h"'),
    ("input/FFMpegInput.cpp", '#include "network/HTTPClient.h"'),
    ("network/HTTPClient.cpp", '#include "plugin/HostRecords.h"'),
    ("plugin/Vocabulary.cpp", '#include "common/utils/Clock.h"'),
    ("plugin/SamplePacket.h", '#include "common/utils/StdString.h"'),
    ("plugin/SamplePacket.h", "#include <string>"),
    ("host/main.cpp", '#include "plugin/SamplePacket.h"'),
    ("host/main.cpp", '#include "common/dax/Variant.h"'),
    ("host/main.cpp", "#include <boost/function.hpp>"),
    ("tests/support/Host.h", '#include "host/Records.h"'),
    ("tests/support/Host.h", '#include "encoder/BasicMuxer.h"'),
]


def self_test():
    names = {name for name, *_ in WRONG + RIGHT}
    names |= set(re.findall(r'"([a-z]+/[^"]+)"', " ".join(row[1] for row in WRONG + RIGHT)))
    names -= {"input/Absent.h", "encoder/Later.h"}
    broken = 0

    def faults_with(name, line):
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder)
            for other in names:
                (root / other).parent.mkdir(parents=True, exist_ok=True)
                (root / other).write_text("#pragma once\n", encoding="utf-8")
            (root / name).write_text(f"#pragma once\n{line}\n", encoding="utf-8")
            return check(root)

    for name, line, word in WRONG:
        faults = faults_with(name, line)
        if len(faults) != 1 or word not in faults[0]:
            print(f"{name}: {line}: expected one fault about '{word}', found {faults}")
            broken += 1
    for name, line in RIGHT:
        faults = faults_with(name, line)
        if faults:
            print(f"{name}: {line}: expected no fault, found {faults}")
            broken += 1
    print(f"{len(WRONG)} wrong and {len(RIGHT)} right lines tried, {broken} judged badly")
    return broken


def main():
    if sys.argv[1:] == ["--self-test"]:
        return 1 if self_test() else 0
    if len(sys.argv) != 2:
        print(__doc__)
        return 2
    faults = check(Path(sys.argv[1]))
    print("\n".join(faults) if faults else "every include stays on its floor")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
