#!/usr/bin/env bash
# usage: diagnosis_says.sh LABORATORY FILE [--refresh]: what the monitor counts, names and says of worlds
# whose truth is known, against what is committed; --refresh: commits what it says now. The worlds are the
# same on every machine, so each difference is one of the rules or of the counts.
set -euo pipefail
lab=$1 file=$2
worlds=(
    "none --busy" "duplication" "little-jitter" "clocks-apart --seconds 600" "loss --strength weak --seconds 45 --seed 5"
    "loss --strength weak --seconds 300 --seed 3" "loss --strength strong --seconds 500" "loss --busy"
    "bursts --strength strong --seconds 300" "bursts --busy --seed 3" "reorder" "reorder --busy --seed 2" "jitter"
    "jitter --strength strong --busy" "notices" "notices --strength weak --busy" "silence --strength weak"
    "silence --strength strong --busy" "fast-clock" "fast-clock --strength strong --seconds 600"
    "slow-clock --strength weak" "slow-clock --strength strong" "skips" "skips --strength weak"
    "stalls --strength strong" "stalls --busy" "uneven" "uneven --strength strong --busy" "doubled"
    "doubled --strength strong --seed 3" "other-rate" "other-rate --strength strong --busy --seed 5"
    "loss+slow-clock --seed 3" "loss+skips" "reorder+jitter" "silence+slow-clock" "loss+silence"
    "notices+fast-clock" "jitter+stalls --busy" "bursts+doubled" "bursts+notices --busy" "loss+uneven"
)
said() {
    local world
    for world in "${worlds[@]}"; do
        printf '\n## %s\n' "$world"
        # shellcheck disable=SC2086 # several words
        "$lab" run $world | sed -n '/^put in/p; /^named/,$p' || exit
    done
}
if [[ ${3:-} == --refresh ]]; then
    said >"$file"
else
    diff -u "$file" <(said) || {
        echo "other words than committed (-): see whether they are right, then $0 $lab $file --refresh" >&2
        exit 1
    }
fi
