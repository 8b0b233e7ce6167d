#!/bin/sh
# Runs on the (simulated) device: an integrator describes the flash layout of a blank
# device to kiv, installs a release into set 1 and boots it, then installs an update that
# changes one content only into set 2. Each command is shown before it runs.
#
# Usage: demo-device.sh [KIV [MKZUNF]]
#   KIV     the kiv binary (default: $KIV, else kiv from PATH)
#   MKZUNF  the image tool (default: $MKZUNF, else mkzunf from PATH)
#
# Layout of the default simulated device: the fallback set SAFESET holds a kernel,
# a root file system and an application partition of its own; sets 1 and 2 take their
# kernel, root and application partitions from the multi pools KNL, ROOT and APPL.
set -e

KIV=${1:-${KIV:-kiv}}
MKZUNF=${2:-${MKZUNF:-mkzunf}}
export KIV MKZUNF

step() {
    echo "\$ kiv $*"
    "$KIV" "$@"
}

echo "### A blank hostconfig"
step initialize
step info

echo "### The partitions and their pools"
step partinfo 7 KNL-SAFE 0x200000 -offset=180000
step partinfo 8 ROOT-SAFE 0x800000 -offset=380000 -fstype=squashfs -mount=/
step partinfo 19 APPL-SAFE 0x600000 -offset=E00000 -fstype=jffs2 -mount=/mnt/appl
step partinfo 9 KNL 0x40000 -offset=B80000
step partinfo 10 KNL 0x40000 -offset=BC0000
step partinfo 11 ROOT 0x40000 -offset=C00000 -fstype=squashfs -mount=/
step partinfo 12 ROOT 0x40000 -offset=C40000 -fstype=squashfs -mount=/
step partinfo 13 APPL 0x40000 -offset=C80000 -fstype=jffs2 -mount=/mnt/appl
step partinfo 14 APPL 0x40000 -offset=CC0000 -fstype=jffs2 -mount=/mnt/appl

echo "### The three partition sets"
step partset 0 SAFESET -refs=7,8,19
step partset 1 SET1 -refs=9,11,13
step partset 2 SET2 -refs=10,12,14

echo "### What the hostconfig now holds"
step info

work=${TMPDIR:-/tmp}/kiv-demo
mkdir -p "$work"

run() {
    echo "\$ $*"
    "$@"
}

# release FILE VERSION APPL_VERSION APPL_FILL: a release whose kernel and root file system
# are 2.1.7 and whose application has its own version and content.
release() {
    run "$MKZUNF" image -o "$1" \
        -e "release version=$2 date=2026-11-01T12:00:00 build_id=REL-$2 products=demo-board text=\"Demo release $2\"" \
        -e 'kivm line=2,KNL,0,-,-,-,2.1.7,1' \
        -e 'kivm line=3,ROOT,0,/,squashfs,-,2.1.7,1' \
        -e "kivm line=4,APPL,0,/mnt/appl,jffs2,-,$3,3" \
        -e 'software name=KNL version=2.1.7 build_id=g1a2b3c size=70000 fill=0x4b' \
        -e 'software name=ROOT version=2.1.7 build_id=g1a2b3c size=150000 fill=0x52' \
        -e "software name=APPL version=$3 build_id=g1a2b3c size=90000 fill=$4"
}

# The boot loader's part of a reboot into set N: the kernel command line names the set, a
# set in TEST is marked BOOT (its state byte, stored complemented, from TEST to BOOT), and
# /tmp starts empty.
reboot_into() {
    echo "### Reboot into set $1"
    echo "console=ttyS0 KIVSET=SET$1" >/proc/cmdline
    if "$KIV" info | grep -q "set $1: TEST"; then
        printf '\374' | dd of=/dev/mtd5 bs=1 seek=$((131069 + $1)) conv=notrunc 2>/dev/null
    fi
    rm -f /tmp/kiv.autoset /tmp/kiv.activeset
    run cat /proc/cmdline
}

echo "### Release 2.1.7 and what it holds"
release "$work/release-2.1.7.zunf" 2.1.7 2.1.7 0x41
step zunfinfo "$work/release-2.1.7.zunf"

echo "### Installed into the set that is not running (autodetected), to be tested at boot"
step install "$work/release-2.1.7.zunf" -1 -test

reboot_into 1
echo "### The boot script confirms the boot, the application validates the release"
step upgrade test
step upgrade validate
step info

echo "### Release 2.1.8 changes the application only"
release "$work/release-2.1.8.zunf" 2.1.8 2.1.8 0x61
echo "\$ kiv install $work/release-2.1.8.zunf -1 -test"
"$KIV" install "$work/release-2.1.8.zunf" -1 -test | tee "$work/install.out"
written=$(awk '/^Writing out/ { n += $3 } END { print n + 0 }' "$work/install.out")
echo "### Wrote $written of 310000 content bytes: $((310000 - written)) bytes already on flash were kept"

reboot_into 2
step upgrade test
step upgrade validate

echo "### Every partition checked against its recorded CRC-32"
step verify
step verify SET2 -v

echo "### Reports for scripts"
step getrh active
step getrh 1 -pif=ver,build_num,build_id
step getpartset active
step getpartset 2 -pif=pidx,pool,len_dec,ver
step mount 2 -dryrun
