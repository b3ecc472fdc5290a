#!/usr/bin/env bash
# usage: record.sh BUILD_FOLDER: makes the recordings beside this file anew, on a machine that is
# quiet: each of a device that is a little wrong, which a busy machine would hide.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT

"$build/tavistro-server" --port 28099 >/dev/null &
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
