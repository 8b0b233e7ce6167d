#!/bin/busybox sh
# The session tests/kernel/run.sh runs twice, on the kernel's MTD devices in a VM and on
# the simulated flash in kiv-sandbox, to compare the two reports: describe a blank device,
# install a release for a test boot, confirm it, refuse bad installs, install an update
# that changes the application only, check and report, and finally the flash contents.
# Every command is reported as "### COMMAND", its standard output, "--- stderr", its
# standard error and "--- exit STATUS".
#
# Usage: cd IMAGES && scenario.sh KIV
#   IMAGES holds release-2.1.7.zunf, release-2.1.8.zunf and the broken images bad-*.zunf.
set -eu
# shellcheck disable=SC3040 # busybox ash, the shell of both sides, has it
set -o pipefail
KIV=$1
unset KIV_PRODUCT KIV_PLATFORM

# report LABEL COMMAND...
report() {
    printf '### %s\n' "$1"
    shift
    rc=0
    "$@" >/tmp/scenario.out 2>/tmp/scenario.err || rc=$?
    cat /tmp/scenario.out
    echo "--- stderr"
    cat /tmp/scenario.err
    echo "--- exit $rc"
}

kiv() {
    report "kiv $*" "$KIV" "$@"
}

# The boot loader's part of a reboot into set N: the kernel command line names the set, a
# set in TEST is marked BOOT (its state byte, stored complemented, from TEST to BOOT), and
# /tmp starts empty.
reboot_into() {
    echo "### reboot into set $1"
    echo "console=ttyS0 KIVSET=SET$1" >/proc/cmdline
    "$KIV" info >/tmp/scenario.out
    if grep -q "set $1: TEST" /tmp/scenario.out; then
        printf '\374' | dd of=/dev/mtd5 bs=1 seek=$((131069 + $1)) conv=notrunc 2>/dev/null
    fi
    rm -f /tmp/kiv.autoset /tmp/kiv.activeset
}

kiv initialize
kiv partinfo 7 KNL-SAFE 0x200000 -offset=180000
kiv partinfo 8 ROOT-SAFE 0x800000 -offset=380000 -fstype=squashfs -mount=/
kiv partinfo 19 APPL-SAFE 0x600000 -offset=E00000 -fstype=jffs2 -mount=/mnt/appl
kiv partinfo 9 KNL 0x40000 -offset=B80000
kiv partinfo 10 KNL 0x40000 -offset=BC0000
kiv partinfo 11 ROOT 0x40000 -offset=C00000 -fstype=squashfs -mount=/
kiv partinfo 12 ROOT 0x40000 -offset=C40000 -fstype=squashfs -mount=/
kiv partinfo 13 APPL 0x40000 -offset=C80000 -fstype=jffs2 -mount=/mnt/appl
kiv partinfo 14 APPL 0x40000 -offset=CC0000 -fstype=jffs2 -mount=/mnt/appl
kiv partset 0 SAFESET -refs=7,8,19
kiv partset 1 SET1 -refs=9,11,13
kiv partset 2 SET2 -refs=10,12,14
kiv info

kiv zunfinfo release-2.1.7.zunf
kiv install release-2.1.7.zunf -1 -test
reboot_into 1
# -v shows the state bytes before the change: BOOT, then TEST.
kiv upgrade test -v
kiv upgrade validate -v
kiv upgrade validate
kiv verify

# Refused before anything is written.
kiv install release-2.1.8.zunf 2 -product=other-board
kiv install release-2.1.8.zunf 2 -minver=2.2.0
for image in bad-*.zunf; do
    kiv install "$image" 2
done
kiv install missing.zunf 2

# 2.1.8 changes the application only: set 2 takes the kernel and root file system that
# set 1's partitions already hold and gets the new application written.
kiv install release-2.1.8.zunf -1 -test
# A second automatic choice before a reboot is refused.
kiv install release-2.1.8.zunf -1 -test
reboot_into 2
kiv upgrade test
kiv upgrade validate
kiv install release-2.1.8.zunf 2 -rewrite

kiv verify
kiv verify SET2 -v
kiv getrh active
kiv getrh 1 -pif=ver,build_num,build_id
kiv getpartset active
kiv getpartset 2 -pif=pidx,pool,len_dec,ver
kiv mount 2 -dryrun
kiv info

n=0
while [ -e /dev/mtd$n ]; do
    report "flash mtd$n" md5sum /dev/mtd$n
    n=$((n + 1))
done
