#!/usr/bin/env bash
# Cuts the power after every flash operation of each writing command below (one row a
# scenario) and checks every cut with check.sh.
# Usage: sweeps.sh KIV KIV_SANDBOX KIV_POWERCUT MKZUNF WORKDIR [NAME_PATTERN]
set -euo pipefail
kiv=$1 sandbox=$2 powercut=$3 mkzunf=$4 work=$5 only=${6:-.}
here=$(cd "$(dirname "$0")" && pwd)
lib=$(cd "$here/../../scripts" && pwd)/demo-lib.sh
PATH="$(dirname "$kiv"):$PATH"
export PATH
rm -rf "$work" && mkdir -p "$work"
work=$(cd "$work" && pwd)

bindir=$(dirname "$kiv")
on_device() { # RUNDIR CMDLINE COMMAND...
    "$sandbox" --dir "$1" --cmdline "console=ttyS0 $2" --keep "$work" --keep "$here" \
        --keep "$bindir" --keep "$(dirname "$lib")" -- "${@:3}"
}

prepare() { # RUNDIR CMDLINE COMMAND...: builds a starting state, quietly unless it fails
    on_device "$@" >>"$work/prepare.log" 2>&1 || { cat "$work/prepare.log"; exit 1; }
}

# A, A2 full; B: application only changed; P: KNL, APPL and ROOT from flash; S, S2: fallback.
release() { # FILE VERSION KNL ROOT APPL [POOL SUFFIX]
    local sfx=${6:-} args=()
    args+=(-e "release version=$2 date=2026-11-01T12:00:00 build_id=REL-$2 products=demo-board")
    args+=(-e "kivm line=2,KNL$sfx,0,-,-,-,$3,1" -e "kivm line=3,ROOT$sfx,0,/,squashfs,-,$4,1")
    args+=(-e "kivm line=4,APPL$sfx,0,/mnt/appl,jffs2,-,$5,3")
    args+=(-e "software name=KNL version=$3 size=70000 fill=0x1${3: -1}")
    args+=(-e "software name=ROOT version=$4 size=150000 fill=0x2${4: -1}")
    args+=(-e "software name=APPL version=$5 size=90000 fill=0x4${5: -1}")
    "$mkzunf" image -o "$work/$1" "${args[@]}"
}
release A.zunf 2.1.7 2.1.7 2.1.7 2.1.7
release A2.zunf 2.2.0 2.2.0 2.2.0 2.2.0
release B.zunf 2.1.8 2.1.7 2.1.7 2.1.8
release S.zunf 1.0.1 1.0.1 1.0.1 1.0.1 -SAFE
release S2.zunf 1.0.2 1.0.2 1.0.2 1.0.2 -SAFE
"$mkzunf" image -o "$work/P.zunf" \
    -e "release version=2.1.9 date=2026-11-01T12:00:00 build_id=REL-2.1.9 products=demo-board" \
    -e "kivm line=2,KNL,0,-,-,-,2.1.7,1" -e "kivm line=9,ROOT,0,/,squashfs,-,2.1.7,1" \
    -e "kivm line=3,APPL,0,/mnt/appl,jffs2,-,2.1.9,3" \
    -e "software name=KNL version=2.1.7 size=70000 fill=0x17" \
    -e "software name=APPL version=2.1.9 size=90000 fill=0x49"

mkdir -p "$work/blank"
# shellcheck disable=SC2016 # the device shell's
prepare "$work/described" KIVSET=SAFESET sh -ec '. "$0"; kiv initialize; describe_device kiv' \
    "$lib"
cp -a "$work/described" "$work/safe"
prepare "$work/safe" KIVSET=SAFESET kiv install "$work/S.zunf" 0 -f
cp -a "$work/safe" "$work/running1"
prepare "$work/running1" KIVSET=SAFESET kiv install "$work/A.zunf" 1
cp -a "$work/running1" "$work/both"
prepare "$work/both" KIVSET=SET1 kiv install "$work/A2.zunf" 2 -noactivate
# Set 2 installed for a test boot, then booted: the boot loader marked it BOOT.
cp -a "$work/running1" "$work/boot2"
prepare "$work/boot2" KIVSET=SET1 kiv install "$work/A2.zunf" 2 -test
printf '\374' | dd of="$work/boot2/flash/mtd5.img" bs=1 seek=131071 conv=notrunc 2>/dev/null
cp -a "$work/boot2" "$work/tested2"
prepare "$work/tested2" KIVSET=SET2 kiv upgrade test
# A primary copy gone bad: runs load the backup, the only good copy.
cp -a "$work/both" "$work/badprimary"
printf '\377' | dd of="$work/badprimary/flash/mtd5.img" bs=1 seek=100 conv=notrunc 2>/dev/null

# The sweep tool itself: a subset of the cut points, a failing check and a check that
# programs bits it did not erase (the backup copy is written by cut 4), all reported.
self=$("$powercut" --dir "$work/blank" --work "$work/self.sweep" --keep "$bindir" --from 2 --to 5 --every 2 \
    --check 'case $KIV_POWERCUT_OP in 2) false ;; 4) printf "\377" | dd of=/dev/mtd2 2>/dev/null ;; esac' \
    -- kiv initialize) && status=0 || status=$?
expected="scenario: exit 0, 6 flash operations
cut 2 after erase mtd2 65536 65536: FAILED: check exit 1
cut 4 after erase mtd5 0 65536: FAILED: wrote flash it had not erased: violation mtd2 0 1
2 cut points, 2 failed"
[ "$status" = 1 ] && [ "$self" = "$expected" ] ||
    { echo "kiv-powercut reported (exit $status):"; echo "$self"; exit 1; }

# name | start | booted set | active before | installed set | rerun | accepted | command
scenarios="
initialize       |blank    |SET1   |  |  |before|            |kiv initialize
partinfo         |described|SAFESET|  |  |before|            |kiv partinfo 14 APPL 0x40000 -offset=D00000
partset          |described|SAFESET|  |  |before|            |kiv partset 2 SPARE -refs=10,12
activate         |both     |SET1   |1 |  |before|            |kiv activate 2
activate-badprimary|badprimary|SET1|1 |  |before|            |kiv activate 2
upgrade-activate |both     |SET1   |1 |  |before|            |echo 2 >/tmp/kiv.activeset && kiv upgrade activate
upgrade-test     |boot2    |SET2   |1 |  |before|state-window|kiv upgrade test
upgrade-validate |tested2  |SET2   |1 |  |before|            |kiv upgrade validate
install-set1     |safe     |SAFESET|0 |1 |always|state-window|kiv install $work/A.zunf 1 -test
install-full     |running1 |SET1   |1 |2 |always|            |kiv install $work/A2.zunf 2
install-kept     |running1 |SET1   |1 |2 |always|            |kiv install $work/B.zunf 2
install-partial  |running1 |SET1   |1 |2 |always|            |kiv install $work/P.zunf 2
install-rewrite  |both     |SET1   |1 |2 |always|            |kiv install $work/A2.zunf 2 -rewrite
install-shared-rewrite|running1|SET1|1|2 |always|prev-loss   |kiv install $work/B.zunf 2 -rewrite
install-test     |running1 |SET1   |1 |2 |always|state-window|kiv install $work/A2.zunf 2 -test
install-noactive |running1 |SET1   |1 |2 |always|            |kiv install $work/A2.zunf 2 -noactivate
install-auto     |running1 |SET1   |1 |2 |before|state-window|kiv install $work/A2.zunf -1 -test
install-safe-f   |safe     |SAFESET|0 |0 |always|prev-loss   |kiv install $work/S2.zunf 0 -f
"
failed=0
while IFS='|' read -r name start booted prev target rerun accept command; do
    name=${name// /} start=${start// /} booted=${booted// /} prev=${prev// /}
    target=${target// /} rerun=${rerun// /} accept=${accept// /}
    [ -n "$name" ] && [[ $name =~ $only ]] || continue
    cmdline="console=ttyS0 KIVSET=$booted"
    on_device "$work/$start" "KIVSET=$booted" "$here/check.sh" snap >"$work/$name.before"
    cp -a "$work/$start" "$work/$name.after"
    on_device "$work/$name.after" "KIVSET=$booted" sh -c "$command" >/dev/null 2>&1 || true
    on_device "$work/$name.after" "KIVSET=$booted" "$here/check.sh" snap >"$work/$name.after.snap"
    echo "== $name: $command"
    PC_BEFORE="$work/$name.before" PC_AFTER="$work/$name.after.snap" PC_PREV=$prev \
        PC_TARGET=$target PC_RERUN=$rerun PC_SCENARIO="$command" PC_ACCEPT=$accept \
        "$powercut" --dir "$work/$start" --work "$work/$name.sweep" --cmdline "$cmdline" \
        --keep "$work" --keep "$here" --keep "$bindir" --expected 100 --check "$here/check.sh" \
        -- sh -c "$command" || failed=1
done <<<"$scenarios"
exit $failed
