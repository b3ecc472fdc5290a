#!/usr/bin/env bash
# usage: csharp_test.sh BUILD_FOLDER: unpacks the NuGet package, compiles a program with its class library, and runs it
# with a real server.
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT
unzip -q "$build"/bindings/Tavistro.*.nupkg -d "$work"
cp "$work/lib/net461/Tavistro.dll" "$work"
mcs -warnaserror "-r:$work/Tavistro.dll" "-out:$work/test.exe" "$(dirname "$0")/BindingsTest.cs"

"$build/tavistro-server" --port 0 --json --tone 3=440@0.5 --frames 256 >"$work/server" &
for _ in {1..100}; do
    port=$(grep -oPm1 '"port":\K\d+' "$work/server") && break
    sleep 0.1
done
config() { # CLIENT_ID PORT
    printf '%s\n' '[network]' 'server_ip = 127.0.0.1' "server_port = $2" "client_id = $1" 'discovery_timeout_ms = 1' \
        '[tavistro]' 'driver_inputs = 5, 6' 'driver_outputs = 3' '[asio]' 'driver_name =' 'input_map = 0, 1' \
        'output_map = 0' '[test]' 'loopback_device = on' >"$work/ä$1.ini"
}
config 4721 "$port"
config 4722 "$port"
config 4723 9
"$build/tavistro-host" run "$work/ä4722.ini" --seconds 100 >/dev/null &
host=$!
for _ in {1..100}; do
    "$build/tavistro-monitor" 4722 --once --json 2>/dev/null | jq -e '.stats.rendered_frames > 0' >/dev/null && break
    sleep 0.1
done
export LD_LIBRARY_PATH=$work/runtimes/linux-x64/native
mono "$work/test.exe" "$work" $host "$build/tavistro-monitor"

# The example in the documents.
sed -n '/^```csharp/,/^```/{/^```/!p}' "$(dirname "$0")/../../docs/bindings.md" >"$work/Player.cs"
mcs -warnaserror "-r:$work/Tavistro.dll" "-out:$work/player.exe" "$work/Player.cs"
cp "$work/ä4721.ini" "$work/tavistro.ini"
cd "$work"
sleep 2 | mono player.exe >player
grep -qx Running player
