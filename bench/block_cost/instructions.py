#!/usr/bin/env python3
"""usage: instructions.py PROGRAM FIGURES [--refresh]

Counts with callgrind the instructions that the engine executes per block of 128 frames and compares
them with the committed file FIGURES. --refresh: writes the new counts to FIGURES instead.

Instruction counts show the cost of a change even on a shared machine, where wall-clock times vary too
much. Lower counts fail too, so that improvements get committed."""

import re
import subprocess
import sys

BLOCKS = 100
BAND = 0.05
LEVELS = ["baseline", "avx2"]


def counted(program, level, part, channels):
    run = subprocess.run(
        ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--toggle-collect=measured_work",
         program, level, part, channels],
        capture_output=True, text=True, check=True)
    return int(re.search(r"Collected : (\d+)", run.stderr)[1]) // BLOCKS


def main(program, path, refresh=None):
    with open(path, encoding="ascii") as file:
        lines = file.read().splitlines()
    committed = [line.split() for line in lines if line and not line.startswith("#")]
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as cpu:
        levels = LEVELS if re.search(r"^flags.* avx2 ", cpu.read(), re.M) else ["baseline"]
    found, wrong = [], 0
    for level, part, channels, figure in committed:
        if level not in levels:
            print(f"{level} {part} {channels}: not counted: this processor does not support {level}")
            found.append(figure)
            continue
        now = counted(program, level, part, channels)
        found.append(now)
        change = now / max(int(figure), 1) - 1
        within = abs(change) <= BAND
        wrong += not within
        print(f"{level} {part} {channels}: {now} instructions per block, committed {figure} ({change:+.1%})"
              + ("" if within else "  <-- outside the tolerance"))
    if refresh == "--refresh":
        rows = [f"{level:<8} {part:<7} {channels:>2} {now:>8}" for (level, part, channels, _), now in zip(committed, found)]
        with open(path, "w", encoding="ascii") as file:
            file.write("\n".join([line for line in lines if line.startswith("#")] + rows) + "\n")
        return 0
    if wrong:
        print(f"The tolerance is +-{BAND:.0%}. If the change is intended, run: scripts/instructions --refresh")
    return min(wrong, 1)


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
