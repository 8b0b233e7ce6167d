#!/usr/bin/env bash
# The simulated device as the tests and kiv-powercut rely on it, driven by mtd-utils'
# mtd_debug: NOR writes only clear bits (else a violation is logged), erases take whole
# aligned blocks, each fault hits its own operation, a power cut keeps exactly the
# operations before it and kills the whole run, syslog and exit status come through, and a
# run past its time limit is stopped.
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
    if [ "$rc" != "$want_exit" ] || [ "$events" != "$want_events" ] || [ "$bytes" != "$want_bytes" ]; then
        printf 'FAIL %s\n  exit %s, want %s\n  events "%s"\n  want   "%s"\n  bytes "%s", want "%s"\n' \
            "$name" "$rc" "$want_exit" "$events" "$want_events" "$bytes" "$want_bytes"
        sed 's/^/  | /' "$work/out"
        failed=1
    fi
}

row "bits only cleared" 0 "write mtd3 0 4 write mtd3 0 2 violation mtd3 0 2" "00 00 00 00" -- \
    'W 3 0 z4 && W 3 0 f2'
row "erase aligned blocks only" 0 "erase mtd3 65536 65536" "ff ff ff ff" -- \
    '! E 3 1 65536 && ! E 3 0 1000 && ! E 3 262144 65536 && E 3 65536 65536'
row "erase fault" 0 "erase mtd3 0 131072 fault erase mtd3 65536" "ff ff ff ff" --fault erase:mtd3:1 -- '! E 3 0 131072'
row "write fault" 0 "write mtd3 0 4 fault write mtd3 2" "ff ff ff ff" --fault write:mtd3:2 -- \
    '! W 3 0 z4'
row "short write" 0 "write mtd3 0 4 fault short mtd3 2" "00 00 ff ff" --fault short:mtd3:2 -- \
    'W 3 0 z4'
row "bit flip on read only" 0 "fault bitflip mtd3 1" "ff ff ff ff" --fault bitflip:mtd3:1:0 -- \
    'mtd_debug read /dev/mtd3 0 4 r && [ "$(od -An -tx1 r | xargs)" = "ff fe ff ff" ]'
row "power cut" 137 "erase mtd3 0 65536 write mtd3 0 4 powercut 2" "00 00 00 00" \
    --fault powercut:2 -- 'E 3 0 65536 && W 3 0 z4 && W 1 0 z4; echo unreachable >&2'
row "exit status" 3 "" "ff ff ff ff" -- 'exit 3'
row "time limit" 124 "" "ff ff ff ff" --timeout 1 -- 'exec sleep 60'
row "syslog" 0 "" "ff ff ff ff" -- 'logger -t T -p user.err hello'
[ "$(cat "$work/run/syslog")" = "$(printf '1.3\tT\thello')" ] ||
    { echo "FAIL syslog: $(cat "$work/run/syslog")" && failed=1; }
exit "$failed"
