#!/usr/bin/env bash
# scenario.sh on phram MTD devices (Debian's kernel under qemu) and in kiv-sandbox: fails
# on any difference in outputs, exit statuses or flash contents that explain() does not.
# Usage: run.sh KIV KIV_SANDBOX MKZUNF WORKDIR (cache/: the kernel, run/: the last run).
# Exit: 0 same behaviour, 1 difference or failure, 77 a host tool is missing.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
kiv=$(realpath "$1") sandbox=$(realpath "$2") mkzunf=$(realpath "$3") work=$4
layout=$here/../../tools/sandbox/default.layout
cache=$work/cache run=$work/run
say() { printf 'kernel_mtd: %s\n' "$*"; }
die() { say "FAIL: $*" && exit 1; }
skip() { say "SKIP: $*" && exit 77; }

[ "$(uname -m)" = x86_64 ] || skip "the VM runs the host's kiv and busybox, which must be x86_64"
for tool in qemu-system-x86_64 busybox cpio gzip apt-get dpkg-deb; do
    command -v "$tool" >/dev/null || skip "$tool is missing (scripts/deps.sh installs it)"
done
busybox=$(command -v busybox)
ldd "$busybox" >/dev/null 2>&1 && die "$busybox is not static (busybox-static)"

rm -rf "$run"
mkdir -p "$cache" "$run/images" "$run/root"
start=$SECONDS

kernel_package() {
    apt-cache depends linux-image-amd64 2>/dev/null |
        sed -n 's/^ *Depends: \(linux-image-[0-9][^ ]*-amd64\)$/\1/p; T; q'
}
pkg=$(kernel_package)
[ -n "$pkg" ] || pkg=$(apt-get update -qq >/dev/null 2>&1; kernel_package)
[ -n "$pkg" ] || pkg=$(find "$cache" -maxdepth 1 -name 'linux-image-*' -type d -printf '%f\n' |
    sort | tail -n 1)
[ -n "$pkg" ] || die "cannot tell which kernel package linux-image-amd64 is"
kdir=$cache/$pkg
if [ ! -e "$kdir/.unpacked" ]; then
    rm -rf "${cache:?}"/linux-image-*
    say "fetching $pkg"
    (cd "$cache" && timeout 240 apt-get download -q "$pkg" >/dev/null 2>&1) ||
        die "apt-get download $pkg failed"
    # Only what the VM boots with: the whole package unpacks to some 400 MB.
    mkdir -p "$kdir"
    dpkg-deb --fsys-tarfile "$cache"/"$pkg"_*.deb | tar -x -C "$kdir" --wildcards \
        './boot/vmlinuz-*' '*/drivers/mtd/mtd.ko' '*/drivers/mtd/devices/phram.ko'
    rm -f "$cache"/*.deb
    touch "$kdir/.unpacked"
fi
vmlinuz=$(find "$kdir/boot" -name 'vmlinuz-*' -print -quit)
for m in mtd phram; do [ -n "$(find "$kdir" -name "$m.ko")" ] || die "$pkg has no $m.ko"; done
say "kernel $pkg"

# --- The demo's releases and broken copies of a third one, the same files for both sides.
demo_lib=$(realpath "$here/../../scripts/demo-lib.sh")
. "$demo_lib"
release() { demo_release "$mkzunf" "$run/images/$1" "${@:2}"; }
release release-2.1.7.zunf 2.1.7 0x41
release release-2.1.8.zunf 2.1.8 0x61
release bad-magic.zunf 2.1.9 0x71 --bad-magic=2
release bad-part-crc.zunf 2.1.9 0x71 --bad-part-body-crc=4
release bad-part-header.zunf 2.1.9 0x71 --bad-part-hdr-crc=3
release bad-truncated.zunf 2.1.9 0x71 --truncate=200000

root=$run/root
mkdir -p "$root"/{bin,dev,etc,proc,sys,lib/modules}
cp "$here/init" "$root/init"
cp "$here/scenario.sh" "$root/scenario.sh"
cp "$demo_lib" "$root/demo-lib.sh"
cp "$busybox" "$root/bin/busybox"
cp "$kiv" "$root/bin/kiv"
ldd "$kiv" | grep -o '/[^ ]*' | while read -r lib; do
    mkdir -p "$root$(dirname "$lib")"
    cp -L "$lib" "$root$lib"
done
find "$kdir" \( -name mtd.ko -o -name phram.ko \) -exec cp {} "$root/lib/modules/" \;
cp -r "$run/images" "$root/images"
mknod -m 600 "$root/dev/console" c 5 1
bytes() { local v=${1/%[kK]/*1024} && v=${v/%[mM]/*1048576} && echo $((v)); }
while read -r word n rest; do
    [ "$word" = mtd ] || continue
    [[ $rest != *locked* ]] || die "phram cannot lock a device (mtd$n)"
    size=${rest#*size=} erase=${rest#*erase=}
    echo "$n $(bytes "${size%% *}") $(bytes "${erase%% *}")"
done < <(sed 's/#.*//' "$layout") | sort -n >"$root/etc/flash.layout"
[ "$(awk 'NR - 1 != $1' "$root/etc/flash.layout")" = "" ] || die "layout devices are not 0..N"
flash_total=$(awk '{ t += $2 } END { print t }' "$root/etc/flash.layout")
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$run/initramfs.gz"

# The flash is RAM above 128 MiB that the kernel leaves alone (memmap=SIZE$START).
flash_base=$((128 << 20))
flash_mib=$(((flash_total + (1 << 20) - 1) >> 20))
mem_mib=$((128 + flash_mib + 64))
say "booting the VM ($mem_mib MiB, flash ${flash_mib} MiB)"
vm_start=$SECONDS
qemu_status=0
timeout 300 qemu-system-x86_64 -nodefaults -machine pc -accel tcg -smp 1 \
    -m "$mem_mib" -display none -no-reboot -nic none \
    -kernel "$vmlinuz" -initrd "$run/initramfs.gz" \
    -append "console=ttyS0 KIVSET=SET1 panic=-1 quiet memmap=${flash_mib}M\$$flash_base kiv_flash=$flash_base" \
    -serial "file:$run/console.log" -serial "file:$run/vm.report" </dev/null || qemu_status=$?
say "VM ran $((SECONDS - vm_start)) s (qemu status $qemu_status)"
if ! tail -n 1 "$run/vm.report" 2>/dev/null | grep -qx '=== end'; then
    tail -n 30 "$run/console.log" 2>/dev/null || true
    die "the VM did not finish the scenario (console: $run/console.log)"
fi
sed -i '$d' "$run/vm.report"

(cd "$run/images" && timeout 150 "$sandbox" --dir "$run/sandbox" --timeout 120 \
    --cmdline "console=ttyS0 KIVSET=SET1" --keep "$(dirname "$kiv")" --keep "$here" \
    --keep "$(dirname "$demo_lib")" -- \
    "$busybox" sh "$here/scenario.sh" "$kiv" "$demo_lib") >"$run/sandbox.report" 2>&1 ||
    die "kiv-sandbox exited $? (report: $run/sandbox.report)"

# explain SIDE: the report with the one explained difference checked and made the same:
# kiv writes the mtd2 backup only when MEMISLOCKED says "not locked", which phram can't say.
erased_md5=$(head -c 131072 /dev/zero | tr '\0' '\377' | md5sum | cut -d' ' -f1)
explain() {
    awk -v side="$1" -v erased="$erased_md5" '
        /^### flash mtd2$/ { mtd2 = 1; print; next }
        mtd2 && /\/dev\/mtd2$/ {
            mtd2 = 0
            if (side == "vm" && $1 != erased) print "mtd2 was written in the VM"
            else if (side == "sim" && $1 == erased) print "mtd2 holds no backup copy in the sandbox"
            else print "(backup copy: explained, see run.sh)"
            next
        }
        { print }'
}
explain vm <"$run/vm.report" >"$run/vm.compared"
explain sim <"$run/sandbox.report" >"$run/sandbox.compared"
say "wall time $((SECONDS - start)) s"
if ! diff -u --label kernel "$run/vm.compared" --label sandbox "$run/sandbox.compared" \
    >"$run/report.diff"; then
    cat "$run/report.diff"
    die "kernel and simulator differ (reports in $run)"
fi
grep -q '^### flash mtd19$' "$run/sandbox.report" || die "the scenario stopped early"
say "explained: mtd2 holds the backup copy only in the sandbox (no MEMISLOCKED in phram)"
say "PASS: kernel MTD devices and simulator agree"
