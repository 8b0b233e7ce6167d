#!/bin/sh
# Runs on the (simulated) device: an integrator describes the flash layout of a blank
# device to kiv and inspects the result. Each command is shown before it runs.
#
# Usage: demo-device.sh [KIV [MKZUNF]]
#   KIV     the kiv binary (default: $KIV, else kiv from PATH)
#   MKZUNF  the image tool, for later steps (default: $MKZUNF, else mkzunf from PATH)
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

# ---------------------------------------------------------------------------------------
# A release for set 1. Until kiv's install action does it, the contents are written the
# way an integrator would by hand: mkzunf builds them, Debian's flashcp writes them, and
# partinfo records length, CRC-32 and version so that verify can check them later.
work=${TMPDIR:-/tmp}/kiv-demo
mkdir -p "$work"

run() {
    echo "\$ $*"
    "$@"
}

echo "### A release image and what it holds"
run "$MKZUNF" image -o "$work/release.zunf" \
    -e 'release version=2.1.7 date=2026-11-01T12:00:00 build_id=REL-2.1.7 products=demo-board text="Demo release 2.1.7"' \
    -e 'kivm line=2,KNL,0,-,-,-,2.1.7,1' \
    -e 'kivm line=3,ROOT,0,/,squashfs,-,2.1.7,1' \
    -e 'kivm line=4,APPL,0,/mnt/appl,jffs2,-,2.1.7,1' \
    -e 'software name=KNL version=2.1.7 build_id=g1a2b3c size=70000 fill=0x4b' \
    -e 'software name=ROOT version=2.1.7 build_id=g1a2b3c size=150000 fill=0x52' \
    -e 'software name=APPL version=2.1.7 build_id=g1a2b3c size=90000 fill=0x41'
step zunfinfo "$work/release.zunf"
step zunfinfo "$work/release.zunf" -all

# crc_and_length FILE: the IEEE CRC-32 and the length of FILE, read from the trailer of
# its gzip stream (CRC-32 and size, little-endian), so the script needs no other tool.
crc_and_length() {
    gzip -c "$1" | tail -c 8 | od -An -tu4 | awk '{ print $1, $2 }'
}

# write_partition PARTIDX POOL SIZE FILL BYTES [partinfo options]
write_partition() {
    pidx=$1 pool=$2 size=$3 fill=$4 bytes=$5
    shift 5
    run "$MKZUNF" partition -o "$work/$pool.bin" --wts=1 --name="$pool" --version=2.1.7 \
        --build-id=g1a2b3c --size="$bytes" --fill="$fill"
    run flashcp "$work/$pool.bin" "/dev/mtd$pidx"
    set -- $(crc_and_length "$work/$pool.bin") "$@"
    crc=$1 len=$2
    shift 2
    step partinfo "$pidx" "$pool" "$size" -metacrc="$crc" -metalength="$len" -meta=2.1.7 "$@"
}

echo "### Set 1 receives release 2.1.7"
write_partition 9 KNL 0x40000 0x4b 70000 -offset=B80000
write_partition 11 ROOT 0x40000 0x52 150000 -offset=C00000 -fstype=squashfs -mount=/
write_partition 13 APPL 0x40000 0x41 90000 -offset=C80000 -fstype=jffs2 -mount=/mnt/appl
step partset 1 SET1 -refs=9,11,13 -meta=2.1.7

echo "### Every partition checked against its recorded CRC-32"
step verify
step verify SET1 -v

echo "### Set 1 becomes the active set"
step activate SET1

echo "### After a reboot into set 1 the boot loader marks it BOOT; the boot script tests it"
# The boot loader's part: state byte of set 1 (stored complemented) from VALID to BOOT.
printf '\374' | dd of=/dev/mtd5 bs=1 seek=131070 conv=notrunc 2>/dev/null
cat /proc/cmdline
step upgrade test
step info
echo "### The application confirms the release"
step upgrade validate
step upgrade validate

echo "### Reports for scripts"
step getrh active
step getrh 1 -pif=ver,build_num,build_id
step getpartset active
step getpartset 1 -pif=pidx,pool,len_dec,ver
step mount 1 -dryrun
