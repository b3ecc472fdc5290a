#!/usr/bin/env python3
"""usage: system_calls.py SERVER HOST CONFIGURATION

Counts with strace the system calls per block of a running client, by thread, and compares them with
the expected numbers."""

import collections
import json
import os
import re
import signal
import subprocess
import sys
import tempfile

CHANNELS = 8  # a block of 128 frames has four fragments
# Receive: one call for the sync notice, one for all fragments. Send: one call for all fragments. The client's
# fields lie in two places of the statistics block.
PER_BLOCK = {"tav-receive": {"recvmsg": 2, "sendmsg": 1, "pwrite64": 2}, "tav-loopback": {}}
# Calls that wait for the next period; their number varies.
WAITING = {"tav-loopback": {"clock_nanosleep", "sched_yield"}, "tav-receive": set()}
# Limit for calls per block that are not expected: reports, pings, contended locks.
OCCASIONAL = 0.2
TOLERANCE = 0.1
NOT_ALLOWED = 77


def steady_calls(server, host, configuration):
    """Returns the calls by thread and name, and the number of sync notices received."""
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
        blocks += thread == "tav-receive" and "recvmsg" in line and line.endswith(" = 44")  # bytes of a sync notice
    return calls, blocks


def main(server, host, configuration):
    allowed = subprocess.run(["strace", "-qq", "-o", "/dev/null", "true"], capture_output=True, text=True)
    if allowed.returncode != 0:
        print(f"skipped: strace is not permitted here: {allowed.stderr.strip()}")
        return NOT_ALLOWED
    calls, blocks = steady_calls(server, host, configuration)
    print(f"{blocks} blocks")
    wrong = blocks < 500
    for thread, expected in PER_BLOCK.items():
        for name in sorted(set(expected) | set(calls[thread]) - WAITING[thread]):
            found, wanted = calls[thread][name] / max(blocks, 1), expected.get(name, 0)
            good = abs(found - wanted) <= (OCCASIONAL if wanted == 0 else TOLERANCE * wanted)
            wrong |= not good
            print(f"{thread} {name}: {found:.3f} per block, expected {wanted}"
                  + ("" if good else "  <-- outside the tolerance"))
    return int(wrong)


if __name__ == "__main__":
    if len(sys.argv) != 4:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
