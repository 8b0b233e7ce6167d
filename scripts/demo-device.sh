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
