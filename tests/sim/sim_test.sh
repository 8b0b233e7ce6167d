#!/usr/bin/env bash
# What only this test shows of the simulated device (faults, syslog and exit status show in
# the others): NOR writes only clear bits, erases take aligned blocks, a power cut keeps
# exactly the operations before it. Driven by mtd_debug.
# Usage: sim_test.sh KIV-SANDBOX
set -euo pipefail
sandbox=$1
work=$(mktemp -d /var/tmp/sim-test.XXXXXX) # the sandbox gives its command a private /tmp
trap 'rm -rf "$work"' EXIT
printf '\0\0\0\0' >"$work/z4"
printf '\377\377' >"$work/f2"
failed=0

# row NAME EXIT "EVENTS" "FIRST 4 BYTES OF mtd3" [SANDBOX OPTION]... -- SCRIPT
row() {
    local name=$1 want_exit=$2 want_events=$3 want_bytes=$4 rc=0 opts=()
    shift 4
    while [ "$1" != -- ]; do opts+=("$1") && shift; done
    rm -rf "$work/run"
    "$sandbox" --dir "$work/run" --keep "$work" --timeout 20 "${opts[@]}" -- \
        sh -c "cd $work; E() { mtd_debug erase /dev/mtd\$1 \$2 \$3; }
               W() { mtd_debug write /dev/mtd\$1 \$2 \$(stat -c %s \$3) \$3; }; $2" \
        >"$work/out" 2>&1 || rc=$?
    local events bytes
    events=$(grep -v '^open' "$work/run/events" | paste -sd' ' || true)
    bytes=$(od -An -tx1 -N4 "$work/run/flash/mtd3.img" | xargs)
    [ "$rc $events $bytes" = "$want_exit $want_events $want_bytes" ] || {
        printf 'FAIL %s: got "%s"\n  want "%s"\n' "$name" "$rc $events $bytes" \
            "$want_exit $want_events $want_bytes" && sed 's/^/  | /' "$work/out" && failed=1
    }
}

row "bits only cleared" 0 "write mtd3 0 4 write mtd3 0 2 violation mtd3 0 2" "00 00 00 00" -- \
    'W 3 0 z4 && W 3 0 f2'
row "erase aligned blocks only" 0 "erase mtd3 65536 65536" "ff ff ff ff" -- \
    '! E 3 1 65536 && ! E 3 0 1000 && ! E 3 262144 65536 && E 3 65536 65536'
row "power cut" 137 "erase mtd3 0 65536 write mtd3 0 4 powercut 2" "00 00 00 00" \
    --fault powercut:2 -- 'E 3 0 65536 && W 3 0 z4 && W 1 0 z4; echo unreachable >&2'
exit "$failed"
