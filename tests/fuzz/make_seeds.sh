#!/usr/bin/env bash
# The fuzz targets' seed corpora (images, hostconfigs, texts). Usage: make_seeds.sh OUT MKZUNF KIV
set -euo pipefail
out=$1 mkzunf=$2 kiv=$3
work=$out/work
rm -rf "$out"
mkdir -p "$work" "$out"/{stream_parser,hostconfig,install,zunfinfo,kivmd,match_model,csv,cmdline}
# kiv is built with the sanitizers; its run-time checks stay on, the leak report is noise.
export ASAN_OPTIONS=detect_leaks=0

kivm_lines=('2,KNL,0,-,-,-,2.1.7,1' '3,ROOT,0,/,squashfs,-,-2.-2.-2,2'
    '4,APPL,0,/mnt/appl,jffs2,m1,0x02010008,3' '5,BOOT,0,-,-,-,-1.-1.-1,1')
printf '%s\n' '# kivm of the full release' "${kivm_lines[@]}" >"$work/kivm.txt"
"$mkzunf" image -o "$work/full.zunf" \
    -e 'release version=2.1.8 date=2026-01-02 build_id=REL-2.1.8 products=m1,m2 text="Release"' \
    -e "kivm file=$work/kivm.txt" -e 'software name=BOOT version=1.0.0 size=12' \
    -e 'software name=KNL version=2.1.7 build_id=g1 size=100 fill=0x4b' \
    -e 'software name=ROOT version=2.1.8 build_id=g1 size=61 fill=0x52' \
    -e 'software name=APPL version=2.1.8 size=7 fill=0x41'
"$mkzunf" image -o "$work/keep.zunf" -e 'release version=2.1.7 products=m1' \
    -e 'kivm line=2,KNL,0,-,-,-,2.1.7,1' -e 'kivm line=3,ROOT,0,/,squashfs,-,2.1.7,2' \
    -e 'software name=KNL version=2.1.7 size=100 fill=0x4b' \
    -e 'software name=ROOT version=2.1.7 size=9'
"$mkzunf" image -o "$work/partial.zunf" -e 'release version=1.0.0 products=m2' \
    -e 'kivm line=-1,KNL,0,-,-,-,2.1.7,1' -e 'kivm line=2,APPL,0,-,-,-,1.0.0,3' \
    -e 'software name=APPL version=1.0.0 size=3'
"$mkzunf" image -o "$work/other.zunf" -e 'data name=notes text=hello' \
    -e 'raw type=7 name=vendor hdr_length=40 header=0102030405060708 size=5 fill=0x56'
"$mkzunf" image -o "$work/rh.zunf" -e 'release version=3.0.1 products=m1 text=Only'
"$mkzunf" image -o "$work/badcrc.zunf" --bad-part-body-crc=2 -e 'release version=1.2.3' \
    -e 'kivm line=2,APPL,0,-,-,-,1.2.3,1' -e 'software name=APPL version=1.2.3 size=8'

# Hostconfigs: blank, with partitions and sets, and one with another owner's part in front.
k=(-cfg="$work/hostcfg" -lockfile="$work/kiv.lock")
"$kiv" initialize "${k[@]}" >/dev/null
cp "$work/hostcfg" "$work/hostcfg-blank"
"$kiv" partinfo 7 KNL-SAFE 0x200000 -offset=180000 "${k[@]}" >/dev/null
"$kiv" partinfo 10 KNL 0x40000 -offset=BC0000 -fstype=squashfs -mount=/ "${k[@]}" >/dev/null
"$kiv" partset 0 SAFESET -refs=7 "${k[@]}" >/dev/null
"$kiv" partset 1 SET1 -refs=10 "${k[@]}" >/dev/null
dd if="$work/hostcfg" of="$work/kivdata" bs=1 skip=56 count=2964 status=none
"$mkzunf" hostconfig -o "$work/hostcfg-vendor" --data=vendor="$work/kivm.txt" \
    --data="KIV data=$work/kivdata"

for f in full keep partial other rh badcrc; do
    cp "$work/$f.zunf" "$out/zunfinfo/$f"
    # One chunk; set 1 with skipping, chunks 7, empty, 64; set 2, -f -rewrite, chunks 24, 5.
    for prefix in '\x00\x00' '\x21\x03\x07\x00\x40' '\x0e\x02\x18\x05'; do
        n=$f-$(printf '%s' "$prefix" | tr -dc '0-9a-f')
        { printf "$prefix"; cat "$work/$f.zunf"; } | tee "$out/install/$n" >"$out/stream_parser/$n"
    done
done
cp "$work"/hostcfg* "$work/full.zunf" "$out/hostconfig/"

printf '%s\n' "${kivm_lines[@]}" >"$out/kivmd/lines"
printf '# comment\n1,P,0,-,-,-,0x01020003,2\n\n2,Q,0,-,-,-,1.2.3,1\n' >"$out/kivmd/blank-line"
printf 'm1\x00Release\nproducts=m1,m2\n' >"$out/match_model/first"
printf 'm2\x00products=m1,m2\n' >"$out/match_model/last"
printf 'm\x00products=m1,m' >"$out/match_model/no-newline"
printf '\x14name,pn,offset,size' >"$out/csv/pif"
printf '\x03a,b,' >"$out/csv/trailing"
printf '%s\x00' install /tmp/r.zunf -1 -product=m1 -minver=1.2.3 -test >"$out/cmdline/install"
printf '%s\x00' -v -cfg=/tmp/h -cfgbak=/tmp/b -lockfile=/tmp/l getrh -pif=name >"$out/cmdline/getrh"
printf '%s\x00' KIV_PRODUCT=m1 -dev=/dev/loop0 -autosetfile=/a zunfinfo f -all >"$out/cmdline/zi"
printf '%s\x00' -meta=0x01020003 -zunfsize=100 partinfo 4 P 0x100 -pn=22 >"$out/cmdline/partinfo"
rm -rf "$work"
