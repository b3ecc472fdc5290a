#!/usr/bin/env bash
# usage: browser_test.sh BUILD_FOLDER: an engine plays, the monitor serves and records it, and a real
# browser draws the live page and the report of the recording.
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT

# await FILE EXPRESSION: prints what grep finds in the file, as soon as it does.
await() {
    for _ in {1..300}; do
        grep -oPm1 "$2" "$1" 2>/dev/null && return
        sleep 0.1
    done
    echo "nothing like $2 came in $(basename "$1"):" >&2
    cat "$1" >&2
    exit 1
}
# page URL: the document after its scripts have run for some seconds.
page() {
    timeout 120 chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage \
        --user-data-dir="$work/profile" --virtual-time-budget=5000 --dump-dom "$1" 2>"$work/browser"
}
# draws NAME: the document on standard input shows the client, what is said of it, and four charts with
# 14 lines of numbers, beside that of the clocks once they are measured.
draws() {
    cat >"$work/$1"
    local lines
    lines=$(grep -oP '<path d="M[\d.]+ [\d.]+L[^>]* aria-label="(?!server)' "$work/$1" | wc -l)
    if ((lines != 14)) || ! grep -q '<h2>client 77</h2>' "$work/$1" ||
        ! grep -qP 'Running.*48000 Hz, 128 frames' "$work/$1" ||
        ! grep -qP '<div class="account[^>]*>(<table><tr.*?<td>[^<]|<div>(nothing wrong in|too short) )' "$work/$1"; then
        echo "$1: no account of client 77, or $lines lines instead of 14:" >&2
        tail -c 3000 "$work/$1" "$work/browser" >&2
        exit 1
    fi
}

"$build/tavistro-server" --port 0 --json >"$work/server" &
port=$(await "$work/server" '"port":\K\d+')
cat >"$work/client.ini" <<EOF
[network]
server_ip = 127.0.0.1
server_port = $port
client_id = 77
[asio]
driver_name =
[test]
loopback_device = on
EOF
"$build/tavistro-host" run "$work/client.ini" --json >"$work/host" &
await "$work/host" '"state_text":"Running"' >/dev/null
"$build/tavistro-monitor" 77 --http 0 --record "$work/recording" --json >"$work/samples" 2>"$work/monitor" &
monitor=$!
port=$(await "$work/monitor" 'serving at port \K\d+')
for _ in {1..4}; do
    await "$work/samples" '"state":3' >/dev/null
    sleep 1
done

page "http://127.0.0.1:$port/" | draws live
kill -INT $monitor
wait $monitor
"$build/tavistro-monitor" report "$work/recording" --output "$work/report.html" >/dev/null
page "file://$work/report.html" | draws report
