#!/usr/bin/env python3
"""usage: system_calls.py SERVER HOST CONFIGURATION: counts by strace the system calls of a running
client, thread by thread, and compares them with what a block is meant to cost."""

import collections
import json
import os
import re
import signal
import subprocess
import sys
import tempfile

CHANNELS = 8  # a block of 128 frames has four fragments
# The notice, the fragments in one run, and likewise back; the client's statistics lie in two places.
PER_BLOCK = {"tav-receive": {"recvmsg": 2, "sendmsg": 1, "pwrite64": 2}, "tav-loopback": {}}
# Waiting for the next period takes as many as it takes, sleeping and yielding.
WAITING = {"tav-loopback": {"clock_nanosleep", "sched_yield"}, "tav-receive": set()}
# Reports, pings, and locks that two threads happened to want at once.
OCCASIONAL = 0.2
TOLERANCE = 0.1
NOT_ALLOWED = 77


def steady_calls(server, host, configuration):
    """The calls by thread and name, and the number of Sync notices taken."""
    channels = ", ".join(str(channel) for channel in range(CHANNELS))
    with tempfile.TemporaryDirectory() as folder, subprocess.Popen(
            [server, "--port", "0", "--melody", "0", "--json"], stdout=subprocess.PIPE, text=True) as running:
        port = json.loads(running.stdout.readline())["port"]
        with open(configuration, encoding="ascii") as file:
            text = re.sub(r"(?m)^(server_ip *=).*", r"\1 127.0.0.1", file.read())
        text = re.sub(r"(?m)^(server_port *=).*", rf"\1 {port}", text)
        text = re.sub(r"(?m)^(client_id *=).*", rf"\1 {os.getpid()}", text)
        text = re.sub(r"(?m)^(driver_inputs|driver_outputs|input_map|output_map)( *=).*", rf"\1\2 {channels}", text)
        path, trace = os.path.join(folder, "client.ini"), os.path.join(folder, "trace")
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        subprocess.run(["strace", "-qq", "-f", "-Y", "-ttt", "-o", trace, host, "run", path, "--seconds", "8"],
                       stdout=subprocess.DEVNULL, check=True)
        running.send_signal(signal.SIGINT)
        running.stdout.read()
        with open(trace, encoding="utf-8", errors="replace") as file:
            lines = [(line, re.match(r"\d+<(.*?)> ([\d.]+) (\w+)?", line)) for line in file.read().splitlines()]
    ended = float(lines[-1][1][2])
    calls = collections.defaultdict(collections.Counter)
    blocks = 0
    for line, (thread, at, call) in ((line, found.groups()) for line, found in lines):
        if not ended - 5 < float(at) < ended - 1:
            continue
        if call:
            calls[thread][call] += 1
        blocks += thread == "tav-receive" and "recvmsg" in line and line.endswith(" = 44")  # bytes of a Sync
    return calls, blocks


def main(server, host, configuration):
    allowed = subprocess.run(["strace", "-qq", "-o", "/dev/null", "true"], capture_output=True, text=True)
    if allowed.returncode != 0:
        print(f"skipped: strace may not be used here: {allowed.stderr.strip()}")
        return NOT_ALLOWED
    calls, blocks = steady_calls(server, host, configuration)
    print(f"{blocks} blocks")
    wrong = blocks < 500
    for thread, meant in PER_BLOCK.items():
        for name in sorted(set(meant) | set(calls[thread]) - WAITING[thread]):
            found, wanted = calls[thread][name] / max(blocks, 1), meant.get(name, 0)
            good = abs(found - wanted) <= (OCCASIONAL if wanted == 0 else TOLERANCE * wanted)
            wrong |= not good
            print(f"{thread} {name}: {found:.3f} a block, meant {wanted}" + ("" if good else "  <-- more or less"))
    return int(wrong)


if __name__ == "__main__":
    if len(sys.argv) != 4:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
