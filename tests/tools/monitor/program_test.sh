#!/usr/bin/env bash
# usage: program_test.sh BUILD_FOLDER: an engine plays, the monitor shows, serves and records it and tells of
# the recording, and a real browser draws the live page and the report.
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
fail() {
    echo "$*" >&2
    exit 1
}
# draws NAME: the document on standard input shows the client, what is said of it, six plots with the last
# values of 18 lines, of which that of the clocks may not be measured yet, and the choice of another client;
# it needs no other file.
draws() {
    cat >"$work/$1"
    local values
    values=$(grep -oP '<td class="u-value">\K-?[\d.]+(?=</td>)' "$work/$1" | wc -l)
    if [[ $(grep -o '<canvas' "$work/$1" | wc -l) != 6 ]] || ((values < 17)) ||
        ! grep -q '<option value="78">client 78: no engine' "$work/$1" ||
        ! grep -q '<h2>client 77</h2>' "$work/$1" || grep -qE '<[a-z]+ [^>]*(src|href)=' "$work/$1" ||
        ! grep -qP 'Running.*48000 Hz, 128 frames' "$work/$1" ||
        ! grep -qP '<div class="account[^>]*>(<table><tr.*?<td>[^<]|<div>(nothing wrong in|too short) )' "$work/$1"; then
        tail -c 3000 "$work/$1" "$work/browser" >&2
        fail "$1: client 77, its account or the choice of 78 is missing, or of 17 values there are $values"
    fi
}
# ends STATUS FILE ARGUMENT...: runs the monitor, which ends so; its output is in FILE
ends() {
    local status=0
    "$build/tavistro-monitor" "${@:3}" >"$work/$2" 2>&1 || status=$?
    ((status == $1)) || fail "tavistro-monitor ${*:3} ended with $status: $(<"$work/$2")"
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
ends 0 once 77 --once
grep -q '^client 77   Running   48000 Hz, 128 frames$' "$work/once" || fail "--once shows: $(<"$work/once")"
ends 1 absent 78 --once
ends 0 table 77 78 --csv --interval 0.5 --seconds 1.4
[[ $(grep -c ^time_ms, "$work/table") == 1 && $(wc -l <"$work/table") == 7 ]] ||
    fail "--csv of two clients and three readings: $(<"$work/table")"

"$build/tavistro-monitor" 77 78 --http 0 --record "$work/recording" --json >"$work/samples" 2>"$work/monitor" &
monitor=$!
url=$(await "$work/monitor" '^http://localhost:\d+/$')
for _ in {1..4}; do
    await "$work/samples" '"state":3' >/dev/null
    sleep 1
done
page "$url" | draws live
curl -s "$url" >"$work/alone.html"
kill -INT $monitor
wait $monitor
page "file://$work/alone.html" | grep -qP '>monitor not reachable since \d\d:\d\d:\d\d<' ||
    fail "a page without its monitor does not say so"
cmp "$work/samples" "$work/recording"
ends 1 taken 77 --record "$work/recording" --once
cmp "$work/samples" "$work/recording"

ends 1 said explain --recording "$work/recording"
[[ $(grep ^client "$work/said") == $'client 77\nclient 78' ]] || fail "explain says: $(<"$work/said")"
grep -A1 '^client 78' "$work/said" | grep -q 'CAUSE no engine (' || fail "explain says: $(<"$work/said")"
ends 1 one explain 78 --recording "$work/recording"
[[ $(grep -c ^client "$work/one") == 1 ]] || fail "explain 78 says: $(<"$work/one")"
ends 1 now explain 78 --seconds 0.2
ends 1 none explain 79 --recording "$work/recording"

ends 0 wrote report "$work/recording"
ends 0 wrote report "$work/recording" --output "$work/report.html"
cmp "$work/recording.html" "$work/report.html"
page "file://$work/report.html" | draws report
echo '<script>plots[1].over.dispatchEvent(new KeyboardEvent("keydown", { key: "Home" }))</script>' >>"$work/report.html"
[[ $(page "file://$work/report.html" | grep -o '<td class="u-value">0:00<' | wc -l) == 6 ]] ||
    fail "a key in a plot does not move the cursors of all"
