#!/bin/sh
# sim-bootloader.sh: the boot loader's part of a reboot, for rehearsals in kiv-sandbox.
# It runs first on the simulated device, picks the set to boot, writes the kernel command
# line and then runs the given "init" (e.g. kiv-boot.sh) as the booted system would.
#
# Usage (one sandbox run is one boot):
#   kiv-sandbox --dir RUNDIR -- sim-bootloader.sh [INIT [ARGS...]]
#
# The choice a real boot loader makes:
#   - it boots the active set;
#   - a set in TEST is marked BOOT before it is booted (state byte stored complemented:
#     0xFE becomes 0xFC), so that a boot that never reaches kiv-boot.sh stays marked;
#   - a set found still in BOOT did not confirm its last boot: the other set is booted.
# The command line names the set: KIVSET=SAFESET, KIVSET=SET1 or KIVSET=SET2.
#
# A real boot loader reads the active set from its own copy of that information; this one
# asks kiv (KIV, default kiv from PATH).
set -eu
# shellcheck disable=SC3040
if (set -o pipefail) 2>/dev/null; then set -o pipefail; fi

KIV=${KIV:-kiv}
# The two state bytes (sets 1 and 2) close the first 128 KiB of the hostconfig device.
STATE_DEV=/dev/mtd5
STATE_OFFSET=131070

active=$("$KIV" getrh active | sed -n 's/^# Selected Partition Set: \([0-9]*\).*/\1/p')
[ -n "$active" ] || { echo "boot loader: no active set, booting SAFESET" >&2; active=0; }

boot=$active
if [ "$active" -ne 0 ]; then
    at=$((STATE_OFFSET + active - 1))
    stored=$(od -An -tu1 -j "$at" -N1 "$STATE_DEV" | tr -d ' ')
    state=$((~stored & 3))
    if [ "$state" -eq 3 ]; then
        boot=$((3 - active))
        echo "boot loader: set $active is still in BOOT: booting set $boot" >&2
    elif [ "$state" -eq 1 ]; then
        # shellcheck disable=SC2059 # the byte is written as an octal escape
        printf "\\$(printf %o $((stored & 0xFC)))" |
            dd of="$STATE_DEV" bs=1 seek="$at" conv=notrunc 2>/dev/null
        echo "boot loader: set $active is in TEST: marked BOOT" >&2
    fi
fi

if [ "$boot" -eq 0 ]; then word=KIVSET=SAFESET; else word=KIVSET=SET$boot; fi
echo "console=ttyS0 $word" >/proc/cmdline
echo "boot loader: booting with $word" >&2

[ $# -eq 0 ] || exec "$@"
