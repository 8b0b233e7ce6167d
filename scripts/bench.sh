#!/usr/bin/env bash
# Measures kiv against what a user would pick instead and prints one table: install time
# against flashcp -v, the flash traffic and system calls of an install, verify against cmp,
# crc32_calc against zlib, the cost of one run, peak memory and the binary's size. The flash
# rows run on the simulated device (kiv-sandbox), all in one sandbox run.
#
# Usage: scripts/bench.sh [--quick]
#   --quick   smaller contents and fewer repetitions: checks that every row works
# Needs root and FUSE (the device sandbox), strace, valgrind, qemu-user, mtd-utils (flashcp)
# and the ARM cross compilers (scripts/deps.sh). Builds into build-bench (Release) and, for
# the ARM binaries, build-bench-armhf and build-bench-arm64 (as scripts/build-cross.sh does).
# An armhf zlib for the ARM CRC rows: zlib1g-dev:armhf, or KIV_BENCH_ARMHF_ZLIB=PATH/libz.a.
set -euo pipefail

if [ "${1:-}" = --inside ]; then
    inside=1
    shift
else
    inside=0
fi

# ---------------------------------------------------------------------------------------
# The device half: runs inside kiv-sandbox, writes "key value" lines to $work/results.
if [ "$inside" = 1 ]; then
    work=$1 kiv=$2 pairtime=$3 memlib=$4 quick=$5
    shift 5
    sizes=("$@")
    res=$work/results
    events=$work/run/events
    zsize=$((64 << 20))
    K() { "$kiv" -zunfsize=$zsize "$@"; }
    put() { echo "$1 $2" >>"$res"; }
    if [ "$quick" = 1 ]; then pairs=3; else pairs=21; fi
    largest=${sizes[-1]}
    erase=65536
    put pairs "$pairs"

    # The device: hostconfig on mtd5 (backup mtd2), pool ROOT of two partitions (mtd8 for
    # set 1, mtd9 for set 2), SAFESET on mtd7; flashcp gets mtd10, of the same kind.
    {
        K initialize
        K partinfo 7 SAFE 0x40000 -offset=0
        K partinfo 8 ROOT $((largest * 1024)) -offset=0x40000 -fstype=squashfs -mount=/
        K partinfo 9 ROOT $((largest * 1024)) -offset=$((0x40000 + largest * 1024))
        K partset 0 SAFESET -refs=7
        K partset 1 SET1 -refs=8
        K partset 2 SET2 -refs=9
    } >/dev/null

    # Timings: pairtime (bench/pairtime.cpp) runs both commands in turn, pair by pair.
    # Every first install takes the next of two releases of the size, so that each one
    # erases, writes and checks the whole content; $current is the release on set 1.
    inst() { echo "$kiv -zunfsize=$zsize install $work/r$1.zunf 1"; }
    other() { [ "${current: -6}" = a.zunf ] && echo b || echo a; }
    pair() {
        local name=$1 fields
        shift
        read -r -a fields <<<"$("$pairtime" "$@")"
        put "$name.a_ms" "${fields[0]}"
        put "$name.b_ms" "${fields[1]}"
        put "$name.ratio" "${fields[2]}"
        put "$name.a_min" "${fields[3]}"
        put "$name.b_min" "${fields[4]}"
        last=${fields[5]}
    }
    current=none.zunf
    for s in "${sizes[@]}"; do
        pair "install.$s" "$pairs" "$(inst "${s}a")" "$(inst "${s}b")" -- \
            "flashcp -v $work/c${s}a.bin /dev/mtd10"
        current=$work/r$s$([ "$last" = 0 ] && echo a || echo b).zunf
    done

    # A second install of the release that is on the set: every content is kept. Each pair
    # is a first install of the next release, then the same release again.
    x=$(other)
    y=$([ "$x" = a ] && echo b || echo a)
    pair second --fixed "$pairs" "$(inst "$largest$x")" "$(inst "$largest$y")" -- \
        "$(inst "$largest$x")" "$(inst "$largest$y")"
    current=$work/r$largest$([ "$last" = 0 ] && echo "$x" || echo "$y").zunf

    # verify of the set against cmp reading the same bytes back (the release on set 1)
    pair verify "$pairs" "$kiv verify 1" -- "cmp -n $((largest * 1024)) /dev/mtd8 ${current%.zunf}.bin"

    # What a device request costs: the same bytes read in the content check's 4 KiB requests
    # and in the 10 KiB ones flashcp makes (on the simulator each request is a round trip).
    dd="dd if=/dev/mtd8 of=/dev/null iflag=count_bytes count=$((largest * 1024))"
    pair requests "$pairs" "$dd bs=4096" -- "$dd bs=10240"

    # One kiv run against a bare fork and exec.
    pair info "$((pairs * 4))" "$kiv info" -- /bin/true

    # traced CMD...: runs CMD under strace (one file per process) and prints the bytes each
    # flash device was read for, as "mtdN BYTES" lines; the event log lines of the run go to
    # $work/run.events.
    traced() {
        local before
        before=$(wc -l <"$events")
        rm -f "$work"/trace.*
        strace -ff -y -s 0 -qq -e trace=read,pread64 -e signal=none -o "$work/trace" "$@" \
            >/dev/null 2>&1
        tail -n +"$((before + 1))" "$events" >"$work/run.events"
        cat "$work"/trace.* | awk '
            match($0, /^(read|pread64)\([0-9]+<\/dev\/mtd[0-9]+>/) {
                dev = substr($0, RSTART, RLENGTH); sub(/.*<\/dev\//, "", dev); sub(/>$/, "", dev)
                n = $NF; if (n ~ /^[0-9]+$/) bytes[dev] += n
            }
            END { for (d in bytes) print d, bytes[d] }'
    }
    # flash operations of the last traced run on one device: erase requests, bytes erased,
    # write requests, bytes written
    ops() {
        awk -v d="$1" '$2 == d && $1 == "erase" { e++; eb += $4 }
            $2 == d && $1 == "write" { w++; wb += $4 }
            END { printf "%d %d %d %d\n", e, eb, w, wb }' "$work/run.events"
    }
    # any flash operation of the last traced run on a device not listed
    others() {
        awk -v keep=" $* " '($1 == "erase" || $1 == "write" || $1 == "violation") &&
            index(keep, " " $2 " ") == 0 { n++ } END { print n + 0 }' "$work/run.events"
    }

    # Flash traffic of a first install of the largest content.
    current=$work/r$largest$(other).zunf
    reads=$(traced "$kiv" -zunfsize=$zsize install "$current" 1)
    read -r e eb w wb <<<"$(ops mtd8)"
    put traffic.erase_requests "$e"
    put traffic.blocks_erased "$((eb / erase))"
    put traffic.bytes_written "$wb"
    put traffic.write_requests "$w"
    put traffic.bytes_read "$(awk '$1 == "mtd8" { print $2 }' <<<"$reads")"
    read -r e eb w wb <<<"$(ops mtd5)"
    read -r e2 _ w2 wb2 <<<"$(ops mtd2)"
    put traffic.hc_erase_requests "$((e + e2))"
    put traffic.hc_bytes_written "$((wb + wb2))"
    put traffic.hc_bytes_read "$(awk '$1 == "mtd5" || $1 == "mtd2" { n += $2 } END { print n + 0 }' \
        <<<"$reads")"
    put traffic.other_ops "$(others mtd8 mtd5 mtd2)"

    # The same release again: only the checks and the hostconfig save should touch flash.
    reads=$(traced "$kiv" -zunfsize=$zsize install "$current" 1)
    read -r e eb w wb <<<"$(ops mtd8)"
    put second.target_ops "$((e + w))"
    put second.bytes_read "$(awk '$1 == "mtd8" { print $2 }' <<<"$reads")"
    read -r e eb w wb <<<"$(ops mtd5)"
    read -r e2 _ w2 wb2 <<<"$(ops mtd2)"
    put second.hc_erase_requests "$((e + e2))"
    put second.hc_write_requests "$((w + w2))"
    put second.hc_bytes_written "$((wb + wb2))"
    put second.other_ops "$(others mtd5 mtd2)"

    # System calls of an install and of flashcp -v for the same bytes (every process).
    syscalls() {
        strace -c -f -o "$work/strace.count" "$@" >/dev/null 2>&1
        awk '$NF == "total" { print $4 }' "$work/strace.count"
    }
    current=$work/r$largest$(other).zunf
    put syscalls.kiv "$(syscalls "$kiv" -zunfsize=$zsize install "$current" 1)"
    put syscalls.flashcp "$(syscalls flashcp -v "$work/c${largest}a.bin" /dev/mtd10)"

    # Peak resident memory of kiv itself during a first install of the largest content
    # (both of its processes: /usr/bin/time reports the largest), and of /bin/true. Where
    # the loader places libc decides which 64 KiB windows of it the kernel maps around each
    # fault, so a single run varies by some 300 KiB: the median of several is taken.
    peak_kib() {
        /usr/bin/time -f '%M' -o "$work/rss" "$@" >/dev/null 2>&1 && tail -n 1 "$work/rss"
    }
    # Beside it, the own memory of the same kind of run (USS: its private pages at exit,
    # where the image is still held), largest process of the run; the rest of RSS is
    # shared pages of the C library.
    uss_kib() {
        rm -f "$work/uss"
        KIV_BENCH_MEMORY=$work/uss LD_PRELOAD=$memlib "$@" >/dev/null 2>&1
        awk '$2 > m { m = $2 } END { print m + 0 }' "$work/uss"
    }
    median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
    : >"$work/rss.kiv" && : >"$work/rss.true" && : >"$work/uss.kiv" && : >"$work/uss.true"
    for _ in $(seq "$(((pairs + 3) / 4))"); do
        current=$work/r$largest$(other).zunf
        peak_kib "$kiv" -zunfsize=$zsize install "$current" 1 >>"$work/rss.kiv"
        peak_kib /bin/true >>"$work/rss.true"
        current=$work/r$largest$(other).zunf
        uss_kib "$kiv" -zunfsize=$zsize install "$current" 1 >>"$work/uss.kiv"
        uss_kib /bin/true >>"$work/uss.true"
    done
    put uss.kiv_kib "$(median <"$work/uss.kiv")"
    put uss.true_kib "$(median <"$work/uss.true")"
    put rss.kiv_kib "$(median <"$work/rss.kiv")"
    put rss.image_bytes "$(stat -c %s "$current")"
    put rss.true_kib "$(median <"$work/rss.true")"
    exit 0
fi

# ---------------------------------------------------------------------------------------
# The host half: builds, prepares the releases, runs the device half and the host-only
# measurements, prints the table.
quick=0
[ "${1:-}" = --quick ] && quick=1
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build-bench
jobs=$(nproc)

if [ "$(id -u)" -ne 0 ]; then
    echo "bench.sh: the device sandbox needs root" >&2
    exit 1
fi
for tool in strace valgrind qemu-arm flashcp cmp /usr/bin/time; do
    command -v "$tool" >/dev/null || {
        echo "bench.sh: $tool is missing (scripts/deps.sh)" >&2
        exit 1
    }
done

echo "== [${SECONDS}s] building (Release, $build)" >&2
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$jobs" --target kiv kiv-sandbox kiv-flashsim mkzunf crc32_bench \
    crc32_count pairtime memory_at_exit >/dev/null
# The device binaries as scripts/build-cross.sh builds them, in build directories of our own.
for arch in armhf arm64; do
    triplet=$([ $arch = armhf ] && echo arm-linux-gnueabihf || echo aarch64-linux-gnu)
    [ -f "$build-$arch/CMakeCache.txt" ] ||
        cmake -S . -B "$build-$arch" -DCMAKE_TOOLCHAIN_FILE="cmake/$triplet.cmake" \
            -DCMAKE_BUILD_TYPE=MinSizeRel -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_TOOLS=OFF \
            -DKIV_BUILD_BENCH=OFF -DKIV_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build "$build-$arch" -j"$jobs" --target kiv >/dev/null
done

work=$(mktemp -d "${TMPDIR:-/tmp}/kiv-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
kiv=$build/src/kiv
mkzunf=$build/tools/mkzunf/mkzunf
# The first size, 4 KiB, measures the fixed cost of an install.
if [ "$quick" = 1 ]; then sizes=(4 256 1024 4096); else sizes=(4 1024 4096 16384); fi
largest=${sizes[-1]}

echo "== [${SECONDS}s] releases of ${sizes[*]} KiB" >&2
n=0
for s in "${sizes[@]}"; do
    n=$((n + 1))
    for v in a b; do
        head -c "$((s * 1024))" /dev/urandom >"$work/c$s$v.bin"
        # A version of its own for every release: none of them is ever taken as installed.
        ver=1.$n.$([ "$v" = a ] && echo 0 || echo 1)
        "$mkzunf" image -o "$work/r$s$v.zunf" -e "release version=$ver products=bench" \
            -e "kivm line=2,ROOT,0,/,squashfs,-,$ver,1" \
            -e "software name=ROOT version=$ver file=$work/c$s$v.bin"
        ln -s "c$s$v.bin" "$work/r$s$v.bin" # the content beside its release, for cmp
    done
done
part=$((largest / 1024))M
[ "$largest" -lt 1024 ] && part=${largest}K
cat >"$work/layout" <<EOF
mtd 2  size=128K erase=64K
mtd 5  size=128K erase=64K
mtd 7  size=256K erase=64K
mtd 8  size=$part erase=64K
mtd 9  size=$part erase=64K
mtd 10 size=$part erase=64K
cmdline console=ttyS0 KIVSET=SET1
EOF

echo "== [${SECONDS}s] on the simulated device" >&2
"$build/tools/sandbox/kiv-sandbox" --dir "$work/run" --layout "$work/layout" --keep "$work" \
    --timeout 1500 -- bash "$root/scripts/bench.sh" --inside "$work" "$kiv" \
    "$build/bench/pairtime" "$build/bench/libmemory_at_exit.so" "$quick" "${sizes[@]}"

declare -A r
while read -r key value; do r[$key]=$value; done <"$work/results"

echo "== [${SECONDS}s] CRC-32 on the host" >&2
reps=5 mintime=0.2
[ "$quick" = 1 ] && reps=3 mintime=0.02
"$build/bench/crc32_bench" --benchmark_filter='BM_(crc32_calc|zlib_crc32)/' \
    --benchmark_repetitions=$reps --benchmark_enable_random_interleaving=true \
    --benchmark_min_time=$mintime --benchmark_report_aggregates_only=true \
    --benchmark_format=csv 2>/dev/null >"$work/crc.csv"
for len in 4096 16777216; do
    ours=$(awk -F, -v n="\"BM_crc32_calc/${len}_median\"" '$1 == n { print $6 }' "$work/crc.csv")
    zlib=$(awk -F, -v n="\"BM_zlib_crc32/${len}_median\"" '$1 == n { print $6 }' "$work/crc.csv")
    r[crc.$len.kiv]=$ours r[crc.$len.zlib]=$zlib
done

# one_pass COUNTER... -- IMPL BYTES: instructions of one CRC pass (REPS 2 minus REPS 1)
callgrind_ir() {
    valgrind --tool=callgrind --callgrind-out-file="$work/cg.out" "$@" >/dev/null 2>&1
    awk '/^(summary|totals):/ { print $2; exit }' "$work/cg.out"
}
one_pass_host() {
    echo $(($(callgrind_ir "$build/bench/crc32_count" "$1" "$2" 2) - \
        $(callgrind_ir "$build/bench/crc32_count" "$1" "$2" 1)))
}
# Under --quick the instruction counts take 1 MiB for the large pass: callgrind is slow.
echo "== [${SECONDS}s] CRC-32 instruction counts (callgrind, host)" >&2
irbig=16777216
[ "$quick" = 1 ] && irbig=1048576
for len in 4096 $irbig; do
    r[ir.$len.kiv]=$(one_pass_host kiv $len)
    r[ir.$len.zlib]=$(one_pass_host zlib $len)
done

# armhf: the shipped crc32 code (MinSizeRel, as on the device) under qemu-arm, every executed
# instruction traced; zlib only when an armhf libz.a is at hand: zlib1g-dev:armhf installed,
# or the one unpacked from its package (dpkg-deb -x) named by KIV_BENCH_ARMHF_ZLIB.
echo "== [${SECONDS}s] CRC-32 instruction counts (qemu-arm)" >&2
armzlib=${KIV_BENCH_ARMHF_ZLIB:-/usr/lib/arm-linux-gnueabihf/libz.a}
armcc=(arm-linux-gnueabihf-g++ -std=c++20 -Os -static -I"$root/src" "$root/bench/crc32_count.cpp"
    "$build-armhf/src/util/libkiv_util.a")
if [ -f "$armzlib" ]; then
    # zlib.h from beside the library, searched after the cross compiler's own headers
    "${armcc[@]}" -idirafter "${armzlib%/lib/*}/include" "$armzlib" -o "$work/crc32_count.armhf"
else
    "${armcc[@]}" -DKIV_COUNT_NO_ZLIB -o "$work/crc32_count.armhf"
fi
qemu_insns() {
    local cpu=$1
    shift
    qemu-arm -cpu "$cpu" -singlestep -d nochain,exec -D "$work/qemu.log" \
        "$work/crc32_count.armhf" "$@" >/dev/null
    grep -c '^Trace' "$work/qemu.log"
    rm -f "$work/qemu.log"
}
arm_len=4096
armbig=65536
[ "$quick" = 1 ] && armbig=16384
for cpu in cortex-a7 max; do
    for len in $arm_len $armbig; do
        for impl in kiv zlib; do
            if [ "$impl" = zlib ] && [ ! -f "$armzlib" ]; then continue; fi
            r[arm.$cpu.$len.$impl]=$(($(qemu_insns $cpu $impl $len 2) - $(qemu_insns $cpu $impl $len 1)))
        done
    done
done

echo "== [${SECONDS}s] sizes" >&2
strip -o "$work/kiv.x86-64" "$kiv"
arm-linux-gnueabihf-strip -o "$work/kiv.armhf" "$build-armhf/src/kiv"
aarch64-linux-gnu-strip -o "$work/kiv.arm64" "$build-arm64/src/kiv"
needed() {
    readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | grep -v '^ld-linux' | tr '\n' ' ' |
        sed 's/ $//'
}

# ---------------------------------------------------------------------------------------
# The table.
fmt() { awk -v v="$1" -v f="$2" 'BEGIN { printf f, v }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b == 0) print "-"; else printf "%.2f", a / b }'; }
le() { awk -v a="$1" -v b="$2" 'BEGIN { print (a <= b + 1e-9) ? "yes" : "NO" }'; }
ge() { awk -v a="$1" -v b="$2" 'BEGIN { print (a >= b - 1e-9) ? "yes" : "NO" }'; }
row() { printf '%-46s %15s %15s %7s %-10s %s\n' "$@"; }
kib() { awk -v k="$1" 'BEGIN { if (k >= 1024) printf "%g MiB", k / 1024; else printf "%g KiB", k }'; }

cpu=$(lscpu | sed -n 's/^Model name: *//p' | head -n 1)
echo
echo "kiv benchmark$([ "$quick" = 1 ] && echo ' (--quick)'): Release build, simulated device" \
    "(kiv-sandbox), $cpu, $(nproc) cores; times are medians of ${r[pairs]} pairs run in turn"
row "measurement" "kiv" "peer" "ratio" "goal" "met"
row "-----------" "---" "----" "-----" "----" "---"
for s in "${sizes[@]}"; do
    a=${r[install.$s.a_ms]} b=${r[install.$s.b_ms]} q=${r[install.$s.ratio]}
    row "install $(kib "$s") (flashcp -v)" "$(fmt "$a" '%.1f ms')" "$(fmt "$b" '%.1f ms')" \
        "$(fmt "$q" '%.2f')" "<= 1.00" "$(le "$q" 1)"
done
# Time per MiB of content. The raw figure carries the fixed cost of a run (process start,
# the fork of the process guard, the hostconfig load and commit); the net one takes the
# smallest install (a 4 KiB content) off first. Net figures use each command's fastest run:
# a shared machine only ever adds time, and a difference of medians would carry the noise
# of both.
raw="" fcraw="" net=() fcnet=() nets="" fcnets=""
for s in "${sizes[@]:1}"; do
    raw+="${raw:+/}$(awk -v t="${r[install.$s.a_ms]}" -v s="$s" 'BEGIN { printf "%.2f", t * 1024 / s }')"
    fcraw+="${fcraw:+/}$(awk -v t="${r[install.$s.b_ms]}" -v s="$s" 'BEGIN { printf "%.2f", t * 1024 / s }')"
    n=$(awk -v t="${r[install.$s.a_min]}" -v f="${r[install.${sizes[0]}.a_min]}" -v s="$s" \
        'BEGIN { printf "%.2f", (t - f) * 1024 / s }')
    net+=("$n") nets+="${nets:+/}$n"
    n=$(awk -v t="${r[install.$s.b_min]}" -v f="${r[install.${sizes[0]}.b_min]}" -v s="$s" \
        'BEGIN { printf "%.2f", (t - f) * 1024 / s }')
    fcnet+=("$n") fcnets+="${fcnets:+/}$n"
done
sizes_label="$(kib "${sizes[1]}")/$(kib "${sizes[2]}")/$(kib "$largest")"
row "install ms per MiB, $sizes_label" "$raw" "$fcraw" "" "" ""
# spread VALUE...: the largest over the smallest
spread() { printf '%s\n' "$@" | sort -g | awk 'NR == 1 { lo = $1 } { hi = $1 }
    END { if (lo > 0) printf "%.2f", hi / lo; else print "-" }'; }
q=$(spread "${net[@]}")
row "  less the $(kib "${sizes[0]}") install" "$nets" "$fcnets" "$q" "flat 10%" \
    "$(awk -v q="$q" 'BEGIN { print (q != "-" && q <= 1.1) ? "yes" : "NO" }')"
# The same spread of the peer on the same device: how flat the device itself is.
row "  the peer's spread (flashcp -v)" "" "$(spread "${fcnet[@]}")" "" "" ""
row "second install $(kib "$largest") (first install)" "$(fmt "${r[second.a_ms]}" '%.1f ms')" \
    "$(fmt "${r[second.b_ms]}" '%.1f ms')" "$(fmt "${r[second.ratio]}" '%.2f')" "" ""
ok=$([ "${r[second.target_ops]}" = 0 ] && [ "${r[second.other_ops]}" = 0 ] &&
    [ "${r[second.hc_erase_requests]}" = 4 ] && [ "${r[second.hc_write_requests]}" = 2 ] && echo yes || echo NO)
row "  its erase+write requests on the content" "${r[second.target_ops]}" "" "" "0" \
    "$([ "${r[second.target_ops]}" = 0 ] && echo yes || echo NO)"
# Two checks read the kept content: the planning's search for the partition that holds it,
# and the re-check of every kept partition before the critical region.
row "  its content bytes read (2 checks: plan, keep)" "${r[second.bytes_read]}" \
    "$((2 * largest * 1024))" "$(ratio "${r[second.bytes_read]}" $((2 * largest * 1024)))" "1.00" \
    "$([ "${r[second.bytes_read]}" = $((2 * largest * 1024)) ] && echo yes || echo NO)"
row "  its hostconfig save: erases/writes/bytes" \
    "${r[second.hc_erase_requests]}/${r[second.hc_write_requests]}/${r[second.hc_bytes_written]}" \
    "" "" "save only" "$ok"
blocks=$(((largest * 1024 + 65535) / 65536))
bytes=$((largest * 1024))
row "install $(kib "$largest"): erase requests (blocks covered)" "${r[traffic.erase_requests]}" \
    "$blocks" "$(ratio "${r[traffic.erase_requests]}" $blocks)" "1.00" \
    "$([ "${r[traffic.erase_requests]}" = $blocks ] && echo yes || echo NO)"
row "  blocks erased (blocks covered)" "${r[traffic.blocks_erased]}" "$blocks" \
    "$(ratio "${r[traffic.blocks_erased]}" $blocks)" "1.00" \
    "$([ "${r[traffic.blocks_erased]}" = $blocks ] && echo yes || echo NO)"
row "  bytes written (content bytes)" "${r[traffic.bytes_written]}" "$bytes" \
    "$(ratio "${r[traffic.bytes_written]}" $bytes)" "1.00" \
    "$([ "${r[traffic.bytes_written]}" = $bytes ] && echo yes || echo NO)"
row "  bytes read back (content bytes once)" "${r[traffic.bytes_read]}" "$bytes" \
    "$(ratio "${r[traffic.bytes_read]}" $bytes)" "1.00" \
    "$([ "${r[traffic.bytes_read]}" = $bytes ] && echo yes || echo NO)"
row "  plus hostconfig: erases/bytes written/read" \
    "${r[traffic.hc_erase_requests]}/${r[traffic.hc_bytes_written]}/${r[traffic.hc_bytes_read]}" \
    "" "" "" ""
row "  flash operations on any other device" "${r[traffic.other_ops]}" "" "" "0" \
    "$([ "${r[traffic.other_ops]}" = 0 ] && echo yes || echo NO)"
row "install $(kib "$largest"): system calls (flashcp -v)" "${r[syscalls.kiv]}" "${r[syscalls.flashcp]}" \
    "$(ratio "${r[syscalls.kiv]}" "${r[syscalls.flashcp]}")" "<= 1.00" \
    "$(le "$(ratio "${r[syscalls.kiv]}" "${r[syscalls.flashcp]}")" 1)"
row "verify set of $(kib "$largest") (cmp)" "$(fmt "${r[verify.a_ms]}" '%.1f ms')" \
    "$(fmt "${r[verify.b_ms]}" '%.1f ms')" "$(fmt "${r[verify.ratio]}" '%.2f')" "<= 1.00" \
    "$(le "${r[verify.ratio]}" 1)"
row "  reading it in 4 KiB requests (10 KiB, dd)" "$(fmt "${r[requests.a_ms]}" '%.1f ms')" \
    "$(fmt "${r[requests.b_ms]}" '%.1f ms')" "$(fmt "${r[requests.ratio]}" '%.2f')" "" ""
for len in 4096 16777216; do
    name=$([ $len = 4096 ] && echo "4 KiB" || echo "16 MiB")
    q=$(ratio "${r[crc.$len.kiv]}" "${r[crc.$len.zlib]}")
    row "crc32_calc $name, host wall (zlib crc32)" "$(fmt "${r[crc.$len.kiv]}" '%.2e B/s')" \
        "$(fmt "${r[crc.$len.zlib]}" '%.2e B/s')" "$q" ">= 1.00" "$(ge "$q" 1)"
done
for len in 4096 $irbig; do
    name=$(kib $((len / 1024)))
    q=$(ratio "${r[ir.$len.zlib]}" "${r[ir.$len.kiv]}")
    row "  $name, host instructions (callgrind), zlib/kiv" "${r[ir.$len.kiv]}" "${r[ir.$len.zlib]}" \
        "$q" ">= 1.00" "$(ge "$q" 1)"
done
for cpu in cortex-a7 max; do
    label=$([ $cpu = cortex-a7 ] && echo "ARMv7" || echo "ARMv8 32-bit")
    for len in $arm_len $armbig; do
        k=${r[arm.$cpu.$len.kiv]} z=${r[arm.$cpu.$len.zlib]:-}
        if [ -n "$z" ]; then
            q=$(ratio "$z" "$k") met=$(ge "$q" 1)
        else
            z="no armhf zlib" q="-" met="-"
        fi
        row "  $(kib $((len / 1024))), armhf $label (qemu-arm), zlib/kiv" "$k" "$z" "$q" ">= 1.00" "$met"
    done
done
row "kiv info, one run (fork+exec of true)" "$(fmt "${r[info.a_ms]}" '%.2f ms')" \
    "$(fmt "${r[info.b_ms]}" '%.2f ms')" "$(fmt "${r[info.ratio]}" '%.2f')" "" ""
img_kib=$(((${r[rss.image_bytes]} + 1023) / 1024))
row "peak RSS, install $(kib "$largest"), median (image)" "${r[rss.kiv_kib]} KiB" "$img_kib KiB" \
    "$(ratio "${r[rss.kiv_kib]}" "$img_kib")" "+1024 KiB" "$(le "${r[rss.kiv_kib]}" $((img_kib + 1024)))"
row "  beyond the image (/bin/true)" "$((${r[rss.kiv_kib]} - img_kib)) KiB" "${r[rss.true_kib]} KiB" \
    "$(ratio $((${r[rss.kiv_kib]} - img_kib)) "${r[rss.true_kib]}")" "" ""
row "  its own (private) memory beyond the image" "$((${r[uss.kiv_kib]} - img_kib)) KiB" \
    "${r[uss.true_kib]} KiB" "$(ratio $((${r[uss.kiv_kib]} - img_kib)) "${r[uss.true_kib]}")" "" ""
for arch in x86-64 armhf arm64; do
    size=$(stat -c %s "$work/kiv.$arch")
    goal="" met=""
    if [ $arch = armhf ]; then
        goal="<= 128 KiB"
        met=$([ "$size" -le 131072 ] && [ "$(needed "$work/kiv.$arch")" = libc.so.6 ] && echo yes || echo NO)
    fi
    row "kiv stripped, $arch (needs)" "$size B" "$(needed "$work/kiv.$arch")" "" "$goal" "$met"
done
