#!/usr/bin/env python3
"""Installs the project, then builds and runs a host against the installed folder alone."""

import argparse
import os
import shutil
import subprocess
import sys
from pathlib import Path


def run(*command, **more):
    print("+", " ".join(map(str, command)), flush=True)
    subprocess.run([str(word) for word in command], check=True, **more)


def expected_headers(source):
    """What a host is given, as paths from the root of the tree."""
    headers = set(source.glob("plugin/*.h")) - {source / "plugin/Vocabulary.h"}
    headers |= set(source.glob("common/dax/*.h"))
    headers.add(source / "common/utils/StdString.h")
    return {header.relative_to(source).as_posix() for header in headers}


def check_headers(source, include, compiler, flags):
    installed = {path.relative_to(include).as_posix() for path in include.rglob("*.h")}
    if installed != expected_headers(source):
        sys.exit(f"installed headers differ: {installed ^ expected_headers(source)}")
    for header in sorted(installed):
        run(compiler, "-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only",
            *flags, "-x", "c++", "-", input=f'#include "{header}"\n', text=True)


def main():
    parser = argparse.ArgumentParser()
    for name in ("cmake", "compiler", "build", "source", "folder"):
        parser.add_argument(f"--{name}", type=Path, required=True)
    options = parser.parse_args()

    # The installed folder is moved once, which shows that nothing in it names its first place.
    first, prefix = options.folder / "installed-first", options.folder / "installed"
    host = options.folder / "host-build"
    for folder in (first, prefix, host):
        shutil.rmtree(folder, ignore_errors=True)
    run(options.cmake, "--install", options.build, "--prefix", first)
    first.rename(prefix)

    config = next(prefix.rglob("ffmpegplugins.pc")).parent
    environment = {**os.environ, "PKG_CONFIG_PATH": str(config)}
    flags = subprocess.run(["pkg-config", "--cflags", "ffmpegplugins"], env=environment, check=True,
                           capture_output=True, text=True).stdout.split()
    plugin = subprocess.run(["pkg-config", "--variable=plugin", "ffmpegplugins"], env=environment,
                            check=True, capture_output=True, text=True).stdout.strip()
    if not Path(plugin).is_file():
        sys.exit(f"the pkg-config file names {plugin}, which is no file")
    check_headers(options.source, prefix / "include/ffmpegplugins", options.compiler, flags)

    run(options.cmake, "-S", options.source / "tests/sdk/host", "-B", host, "-G", "Ninja",
        f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_CXX_COMPILER={options.compiler}")
    run(options.cmake, "--build", host)
    run(host / "outside-host", cwd=host)


if __name__ == "__main__":
    main()
