#!/usr/bin/env python3
"""usage: loopback.py BUILD_FOLDER CONFIGURATION EMULATOR...

Streams a melody for a few seconds from the server through an engine on the loopback device and back, all three
programs under the emulator, while the monitor watches. What returns must be what was sent. Emulation is slow, so
blocks are long, and a buffer that ran empty is no fault."""

import json
import os
import re
import signal
import subprocess
import sys
import tempfile

FRAMES = 1024
SECONDS = 8
NEEDED_BLOCKS = 50  # of some 300 that are sent


def main(build, configuration, *emulator):
    client_id = 1_000_000 + os.getpid()

    def program(name, *arguments):
        return [*emulator, os.path.join(build, f"tavistro-{name}"), *arguments]

    with tempfile.TemporaryDirectory() as folder, subprocess.Popen(
            program("server", "--bind", "127.0.0.1", "--port", "0", "--frames", str(FRAMES), "--melody", "0", "--melody", "1@0.25",
                    "--measure", "0:2", "--measure", "1:3", "--json"), stdout=subprocess.PIPE, text=True) as server:
        try:
            port = json.loads(server.stdout.readline())["port"]
            with open(configuration, encoding="ascii") as file:
                text = file.read()
            for key, value in {"server_ip": "127.0.0.1", "server_port": port, "client_id": client_id}.items():
                text = re.sub(rf"(?m)^({key} *=).*", rf"\1 {value}", text)
            path = os.path.join(folder, "client.ini")
            with open(path, "w", encoding="ascii") as file:
                file.write(text)
            with subprocess.Popen(program("monitor", str(client_id), "--json", "--seconds", str(SECONDS - 1)),
                                  stdout=subprocess.PIPE, text=True) as monitor:
                host = subprocess.run(program("host", "run", path, "--seconds", str(SECONDS)), stdout=subprocess.PIPE,
                                      text=True, timeout=60)
                watched = monitor.communicate(timeout=60)[0]
        finally:
            server.send_signal(signal.SIGINT)
        lines = [json.loads(line) for line in server.stdout.read().splitlines()]
    summary = [line for line in lines if "summary" in json.dumps(line)][-1]
    print(host.stdout, json.dumps(summary.get("measures")), sep="\n")
    faults = []
    if host.returncode != 0 or "Running normally" not in host.stdout:
        faults.append(f"the host ended with status {host.returncode}")
    if server.returncode != 0 or monitor.returncode != 0:
        faults.append(f"server and monitor ended with status {server.returncode} and {monitor.returncode}")
    if str(client_id) not in watched:
        faults.append("the monitor did not see the engine")
    if len(summary.get("measures", [])) != 2:
        faults.append("two channels should have returned")
    for measure in summary.get("measures", []):
        if measure["compared_blocks"] < NEEDED_BLOCKS or measure["correlation_median"] < 0.999:
            faults.append(f"channel {measure['sent']} did not return as it was sent")
    print("\n".join(faults) or "the melody returned on both channels")
    return int(bool(faults))


if __name__ == "__main__":
    if len(sys.argv) < 4:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
