#!/usr/bin/env python3
"""usage: loops.py PROGRAM FIGURES ARCHITECTURE COUNTER... [--refresh]

Counts the instructions that each loop over samples executes per sample, and compares them with the committed file
FIGURES. COUNTER is the command that runs a program and counts: valgrind's callgrind, or qemu with the plugin of
qemu_counter.c. --refresh: writes the new counts instead. A loop that a compiler no longer vectorises shows here."""

import re
import subprocess
import sys

BAND = 0.05
ROUNDS = 100, 300
FRAMES = 128
SAMPLES = {"interpolate": 2 * FRAMES}


def counted(counter, program, level, loop):
    totals = []
    for rounds in ROUNDS:
        run = subprocess.run([*counter, program, level, loop, str(rounds)], capture_output=True, text=True, check=True)
        totals.append(int(re.search(r"Collected : (\d+)", run.stderr)[1]))
    return (totals[1] - totals[0]) / (ROUNDS[1] - ROUNDS[0]) / SAMPLES.get(loop, FRAMES)


def main(program, path, architecture, *counter):
    refresh = counter[-1] == "--refresh"
    counter = counter[:-1] if refresh else counter
    with open(path, encoding="ascii") as file:
        lines = file.read().splitlines()
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as cpu:
        has_avx2 = re.search(r"^flags.* avx2 ", cpu.read(), re.M)
    wrong = compared = 0
    for place, line in enumerate(lines):
        fields = line.split()
        if line.startswith("#") or fields[0] != architecture:
            continue
        _, level, loop, figure = fields
        if level == "avx2" and not has_avx2:
            print(f"{level} {loop}: not counted: this processor does not support {level}")
            continue
        now = counted(counter, program, level, loop)
        lines[place] = f"{architecture:<7} {level:<8} {loop:<18} {now:6.2f}"
        change = now / max(float(figure), 0.01) - 1
        compared += 1
        wrong += abs(change) > BAND
        print(f"{level} {loop}: {now:.2f} instructions per sample, committed {figure}"
              + (f" ({change:+.1%})  <-- outside the tolerance" if abs(change) > BAND else ""))
    if refresh:
        with open(path, "w", encoding="ascii") as file:
            file.write("\n".join(lines) + "\n")
        return 0
    return int(wrong > 0 or compared == 0)


if __name__ == "__main__":
    if len(sys.argv) < 5:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
