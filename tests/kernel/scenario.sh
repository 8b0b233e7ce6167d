#!/bin/busybox sh
# run.sh's session, reported as "### COMMAND", output, "--- stderr", errors, "--- exit N".
# Usage: cd IMAGES && scenario.sh KIV [DEMO_LIB (default /demo-lib.sh, the VM's)]
set -eu
# shellcheck disable=SC3040 # busybox ash, the shell of both sides, has it
set -o pipefail
KIV=$1
. "${2:-/demo-lib.sh}"
unset KIV_PRODUCT KIV_PLATFORM

report() {
    printf '### %s\n' "$1"
    shift
    rc=0
    # Files, not the report's terminal: kiv writes the same on both sides.
    "$@" >/tmp/scenario.out 2>/tmp/scenario.err || rc=$?
    cat /tmp/scenario.out
    echo "--- stderr"
    cat /tmp/scenario.err
    echo "--- exit $rc"
}

kiv() { report "kiv $*" "$KIV" "$@"; }

kiv initialize
describe_device kiv
kiv info

kiv zunfinfo release-2.1.7.zunf
kiv install release-2.1.7.zunf -1 -test
echo "### reboot into set 1"
reboot_into 1 "$KIV" >/dev/null
kiv upgrade test -v
kiv upgrade validate -v
kiv verify

# Refused before anything is written.
kiv install release-2.1.8.zunf 2 -product=other-board
kiv install release-2.1.8.zunf 2 -minver=2.2.0
for image in bad-*.zunf; do kiv install "$image" 2; done
kiv install missing.zunf 2

# 2.1.8 changes the application only: set 2 shares set 1's kernel and root file system.
kiv install release-2.1.8.zunf -1 -test
kiv install release-2.1.8.zunf -1 -test
echo "### reboot into set 2"
reboot_into 2 "$KIV" >/dev/null
kiv upgrade test
kiv upgrade validate
kiv install release-2.1.8.zunf 2 -rewrite

kiv verify
kiv getrh active
kiv getpartset active
kiv mount 2 -dryrun
kiv info

n=0
while [ -e /dev/mtd$n ]; do
    report "flash mtd$n" md5sum /dev/mtd$n
    n=$((n + 1))
done
