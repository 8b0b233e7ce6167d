# The demonstration device and its releases, sourced by the demo (demo-device.sh) and by
# the tests that run the same device: the examples, the kernel MTD check, the power-cut
# sweeps. Plain POSIX sh: it runs under bash, dash and busybox sh alike.

# describe_device CMD: the flash layout, as one "CMD ARGS..." call per kiv command. The
# fallback set SAFESET has partitions of its own; sets 1 and 2 take their kernel, root and
# application partitions from the multi pools KNL, ROOT and APPL.
describe_device() {
    $1 partinfo 7 KNL-SAFE 0x200000 -offset=180000
    $1 partinfo 8 ROOT-SAFE 0x800000 -offset=380000 -fstype=squashfs -mount=/
    $1 partinfo 19 APPL-SAFE 0x600000 -offset=E00000 -fstype=jffs2 -mount=/mnt/appl
    $1 partinfo 9 KNL 0x40000 -offset=B80000
    $1 partinfo 10 KNL 0x40000 -offset=BC0000
    $1 partinfo 11 ROOT 0x40000 -offset=C00000 -fstype=squashfs -mount=/
    $1 partinfo 12 ROOT 0x40000 -offset=C40000 -fstype=squashfs -mount=/
    $1 partinfo 13 APPL 0x40000 -offset=C80000 -fstype=jffs2 -mount=/mnt/appl
    $1 partinfo 14 APPL 0x40000 -offset=CC0000 -fstype=jffs2 -mount=/mnt/appl
    $1 partset 0 SAFESET -refs=7,8,19
    $1 partset 1 SET1 -refs=9,11,13
    $1 partset 2 SET2 -refs=10,12,14
}

# demo_release MKZUNF FILE VERSION APPL_FILL [MKZUNF OPTION]...: a release whose kernel
# and root file system are 2.1.7 and whose application is VERSION, filled with APPL_FILL;
# so 2.1.8 changes the application only.
demo_release() {
    _mkzunf=$1 _file=$2 _version=$3 _fill=$4
    shift 4
    "$_mkzunf" image -o "$_file" "$@" \
        -e "release version=$_version date=2026-11-01T12:00:00 build_id=REL-$_version products=demo-board text=\"Demo release $_version\"" \
        -e 'kivm line=2,KNL,0,-,-,-,2.1.7,1' \
        -e 'kivm line=3,ROOT,0,/,squashfs,-,2.1.7,1' \
        -e "kivm line=4,APPL,0,/mnt/appl,jffs2,-,$_version,3" \
        -e 'software name=KNL version=2.1.7 build_id=g1a2b3c size=70000 fill=0x4b' \
        -e 'software name=ROOT version=2.1.7 build_id=g1a2b3c size=150000 fill=0x52' \
        -e "software name=APPL version=$_version build_id=g1a2b3c size=90000 fill=$_fill"
}

# reboot_into N KIV: the boot loader's part of a reboot into set N. The kernel command line
# names the set, a set in TEST is marked BOOT (its state byte, stored complemented, goes
# from TEST to BOOT), and /tmp starts empty.
reboot_into() {
    echo "console=ttyS0 KIVSET=SET$1" >/proc/cmdline
    if "$2" info | grep -q "set $1: TEST"; then
        printf '\374' | dd of=/dev/mtd5 bs=1 seek=$((131069 + $1)) conv=notrunc 2>/dev/null
    fi
    rm -f /tmp/kiv.autoset /tmp/kiv.activeset
}
