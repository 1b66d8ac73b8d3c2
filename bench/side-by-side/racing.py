"""What the side-by-side runs share: programs that take turns, and the table of their times."""
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def run(command, environment=None):
    """Runs a program to its end; answers seconds, seconds of CPU, peak memory in bytes."""
    start = time.monotonic()
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL, env=environment)
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode != 0:
        raise SystemExit(f"exit status {child.returncode}: {' '.join(map(str, command))}")
    return time.monotonic() - start, usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024


def race(title, rivals, runs):
    """Runs the rivals in turns; the first one is what the others are measured by."""
    times = {name: [] for name in rivals}
    work = {name: [] for name in rivals}
    memory = dict.fromkeys(rivals, 0)
    for command in rivals.values():
        run(command)  # once for the caches
    for _ in range(runs):
        for name, command in rivals.items():
            seconds, cpu, peak = run(command)
            times[name].append(seconds)
            work[name].append(cpu)
            memory[name] = max(memory[name], peak)
    base = statistics.median(next(iter(times.values())))
    print(f"\n{title}, {runs} runs in turns\n")
    print("| program | median s | best s | ratio | CPU s | peak MB |")
    print("|---|---|---|---|---|---|")
    for name, values in times.items():
        median = statistics.median(values)
        print(f"| {name} | {median:.3f} | {min(values):.3f} | {median / base:.2f} "
              f"| {statistics.median(work[name]):.2f} | {memory[name] / 1e6:.0f} |")
    sys.stdout.flush()


def make_clips(*arguments):
    """Makes clips where they are missing; answers their folder."""
    media = Path(os.environ.get("ZEL_TEST_MEDIA", ROOT / "build" / "media"))
    subprocess.run([ROOT / "tests" / "media" / "make", media, *arguments], check=True)
    return media
