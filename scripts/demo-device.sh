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
. "$(dirname "$0")/demo-lib.sh"

step() {
    echo "\$ kiv $*"
    "$KIV" "$@"
}

echo "### A blank hostconfig"
step initialize
step info

echo "### The partitions, their pools and the three partition sets"
describe_device step

echo "### What the hostconfig now holds"
step info

work=${TMPDIR:-/tmp}/kiv-demo
mkdir -p "$work"

run() {
    echo "\$ $*"
    "$@"
}

# release FILE VERSION APPL_FILL: built by demo_release, shown as the tool call it is.
release() {
    echo "\$ mkzunf image -o $1 -e 'release version=$2 ...' (application filled with $3)"
    demo_release "$MKZUNF" "$@"
}

echo "### Release 2.1.7 and what it holds"
release "$work/release-2.1.7.zunf" 2.1.7 0x41
step zunfinfo "$work/release-2.1.7.zunf"

echo "### Installed into the set that is not running (autodetected), to be tested at boot"
step install "$work/release-2.1.7.zunf" -1 -test

echo "### Reboot into set 1"
reboot_into 1 "$KIV"
run cat /proc/cmdline
echo "### The boot script confirms the boot, the application validates the release"
step upgrade test
step upgrade validate
step info

echo "### Release 2.1.8 changes the application only"
release "$work/release-2.1.8.zunf" 2.1.8 0x61
echo "\$ kiv install $work/release-2.1.8.zunf -1 -test"
"$KIV" install "$work/release-2.1.8.zunf" -1 -test | tee "$work/install.out"
written=$(awk '/^Writing out/ { n += $3 } END { print n + 0 }' "$work/install.out")
echo "### Wrote $written of 310000 content bytes: $((310000 - written)) bytes already on flash were kept"

echo "### Reboot into set 2"
reboot_into 2 "$KIV"
run cat /proc/cmdline
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
