#!/usr/bin/env bash
# usage: program_test.sh BUILD_FOLDER: an engine plays, the monitor shows, serves and records it, explains,
# converts and packs the recording, and a real browser uses the live page and the report.
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
fail() {
    echo "$*" >&2
    exit 1
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
for _ in {1..7}; do
    await "$work/samples" '"state":3' >/dev/null
    sleep 1
done
ends 1 early report "$work/samples" --from 1:00:00
ends 0 early report "$work/samples" --output "$work/early.html"
/usr/bin/python3 "$(dirname "$0")/page_test.py" "$url" $monitor "$work/early.html"
wait $monitor
ends 0 converted convert "$work/recording"
cmp "$work/samples" "$work/converted"
((8 * $(stat -c %s "$work/recording") < $(stat -c %s "$work/samples"))) || fail "a recording is not compact"
ends 0 part convert "$work/recording" --from 0:02 --until 3.5 --csv
lines=$(wc -l <"$work/part")
((lines == 3 || lines == 5)) || fail "1.5 seconds of two clients have $lines lines: $(<"$work/part")"
cp "$work/recording" "$work/before"
ends 1 taken 77 --record "$work/recording" --once
cmp "$work/before" "$work/recording"

ends 1 said explain --recording "$work/recording"
[[ $(grep ^client "$work/said") == $'client 77\nclient 78' ]] || fail "explain says: $(<"$work/said")"
grep -A1 '^client 78' "$work/said" | grep -q 'CAUSE no engine (' || fail "explain says: $(<"$work/said")"
ends 1 one explain 78 --recording "$work/samples"
[[ $(grep -c ^client "$work/one") == 1 ]] || fail "explain 78 says: $(<"$work/one")"
ends 1 now explain 78 --seconds 0.2
ends 1 none explain 79 --recording "$work/recording"

ends 0 wrote report "$work/recording"
ends 0 wrote report "$work/samples" --output "$work/report.html"
cmp "$work/recording.html" "$work/report.html"

sed -i 's/^server_ip.*/server_ip = 192.0.2.7/' "$work/client.ini"
ends 0 packed bundle --recording "$work/recording" --config "$work/client.ini" --output "$work/bundle.tar.gz"
mkdir "$work/bundle"
tar -xzf "$work/bundle.tar.gz" -C "$work/bundle"
cmp "$work/recording" "$work/bundle/recordings/recording"
diff <(sed 's/192.0.2.7/x/' "$work/client.ini") "$work/bundle/configurations/client.ini"
diff <(sed '/^client/s/,.*//' "$work/bundle/explained/recording.txt") "$work/said"
version=$("$build/tavistro-host" --version)
jq -e --arg version "${version#tavistro-host }" '.versions["tavistro-host"] == $version and .computer.system and
    .computer.processors > 0 and (.computer.engine_libraries | length) > 0' "$work/bundle/facts.json" >"$work/jq" || fail "$(<"$work/bundle/facts.json")"
if grep -rwF "$(hostname)" "$work/bundle/facts.json"; then fail "the computer's name is in the bundle"; fi
mkdir "$work/other"
printf '; %509s\n' >"$work/other/client.ini" # as long as a block of the archive
ends 0 packed bundle --addresses --config "$work/client.ini" "$work/other/client.ini" --seconds 0.2 --output "$work/all.tar.gz"
tar -xOzf "$work/all.tar.gz" configurations/client.ini | cmp - "$work/client.ini"
tar -xOzf "$work/all.tar.gz" configurations/2-client.ini | cmp - "$work/other/client.ini"
[[ $(tar -tzf "$work/all.tar.gz" | wc -l) == 5 ]] || fail "a bundle has: $(tar -tzf "$work/all.tar.gz")"
tar -xOzf "$work/all.tar.gz" recordings/now.rec >"$work/now.rec"
ends 0 now explain 77 --recording "$work/now.rec"
ends 1 refused bundle --config "$work/missing" --recording "$work/recording" --output "$work/none.tar.gz"
[[ ! -e $work/none.tar.gz ]] || fail "a bundle without one of its files"
