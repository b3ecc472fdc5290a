#!/usr/bin/env bash
# usage: record.sh BUILD_FOLDER: makes the recordings beside this file anew, on a machine that is
# quiet and has two processors: each of a device that is a little wrong, which a busy machine would
# hide, and one of a processor that another program keeps from the engine. Needs root for that.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT

taskset --cpu-list 0 "$build/tavistro-server" --port 28099 >/dev/null &
record() {
    local name=$1 settings=$2 host
    printf '[network]\nserver_ip = 127.0.0.1\nserver_port = 28099\nclient_id = 78\n[asio]\ndriver_name =
[test]\nloopback_device = on\n%b' "$settings" >"$work/client.ini"
    "$build/tavistro-host" run "$work/client.ini" >/dev/null &
    host=$!
    sleep 3
    "$build/tavistro-monitor" 78 --json --seconds 14 >"$here/recordings/$name"
    kill -INT $host
    wait $host
    tail -n 1 "$here/recordings/$name" | grep -o '"\(host_late_us\|underruns\|overruns\)":[0-9]*' | xargs echo "$name"
}
mkdir -p "$here/recordings"
record quiet ''
record slow_device 'loopback_drift_ppm = -4000\n'
record fast_device 'loopback_drift_ppm = 4000\n'
record uneven_device 'loopback_callback_skip_every = 300\nloopback_callback_skip_count = 12
loopback_callback_duplicate_every = 280\nloopback_callback_duplicate_count = 12\n'

# Engine and monitor on a processor that is taken away for 40 ms twice a second; the server has its own.
taskset --cpu-list 1 chrt --fifo 99 python3 -c '
import time
while True:
    until = time.monotonic() + 0.04
    while time.monotonic() < until: pass
    time.sleep(0.46)' &
taskset --cpu-list --pid 1 $$ >/dev/null
record busy_host ''
