#!/usr/bin/env bash
# The integrator examples run as an integrator runs them. Usage: examples_test.sh
# plugin|signed-release|boot|recipes (environment: CMakeLists.txt); KIV_TEST_KEEP=1 keeps.
set -euo pipefail

examples=$KIV_SOURCE_DIR/examples
work=$(mktemp -d "${TMPDIR:-/tmp}/kiv-examples.XXXXXX")
if [ -n "${KIV_TEST_KEEP:-}" ]; then echo "keeping $work"; else trap 'rm -rf "$work"' EXIT; fi
export KIV
demo_lib=$KIV_SOURCE_DIR/scripts/demo-lib.sh
# shellcheck source=../../scripts/demo-lib.sh
. "$demo_lib"

fail() { echo "FAIL: $*" >&2 && exit 1; }

# on DEVICE [SANDBOX-OPTIONS] -- COMMAND...: one boot of DEVICE, the build tree kept.
on() {
    local dev=$1 keep=(--keep "$work" --keep "$examples") f
    shift
    for f in "$demo_lib" "$KIV" "${KIV_TRACE_PLUGIN:-$KIV}" "${KIV_SIGNED_PLUGIN:-$KIV}"; do
        keep+=(--keep "$(dirname "$f")")
    done
    timeout 60 "$KIV_SANDBOX" --dir "$work/$dev" "${keep[@]}" "$@"
}

describe() {
    # shellcheck disable=SC2016 # $KIV is the device shell's
    on "$1" -- /bin/sh -ec '. "$0"; k() { "$KIV" "$@" >/dev/null; }; k initialize
        describe_device k' "$demo_lib" >/dev/null 2>&1 || fail "describing $1"
}

release() { demo_release "$MKZUNF" "$@" || fail "mkzunf $1"; }


# trace_case NAME DEVICE EXIT [SANDBOX-OPTIONS --] KIV-ARGS... <TRACE: IMG, SIZE stand for
# the image and its size; consecutive data_rcvd lines count as their last one.
trace_case() {
    local name=$1 dev=$2 want_exit=$3 trace=$work/$1.trace exit=0
    shift 3
    local options=() want got
    if [[ " $* " == *" -- "* ]]; then
        while [ "$1" != -- ]; do options+=("$1") && shift; done
        shift
    fi
    want=$(sed -e "s|IMG|$work/r1.zunf|g" -e "s|SIZE|$(stat -c %s "$work/r1.zunf")|g")
    on "$dev" "${options[@]}" -- env LD_PRELOAD="$KIV_TRACE_PLUGIN" KIV_TRACE_FILE="$trace" \
        "$KIV" "$@" >"$work/$name.out" 2>&1 || exit=$?
    got=$(awk '/_data_rcvd / { last = $0; next } last != "" { print last; last = "" } { print }
               END { if (last != "") print last }' "$trace" 2>/dev/null || true)
    [ "$exit" = "$want_exit" ] || fail "$name: exit $exit, not $want_exit: $(cat "$work/$name.out")"
    [ "$got" = "$want" ] || fail "$name: trace"$'\n'"$got"$'\n'"instead of"$'\n'"$want"
    grep -qF "KIV	trace: $(tail -n 1 "$trace")" "$work/$dev/syslog" || fail "$name: not in syslog"
}

case_plugin() {
    release "$work/r1.zunf" 2.1.7 0x41
    describe dev
    trace_case install dev 0 install "$work/r1.zunf" -1 -test <<'EOF'
kiv_install_hook_data_rcvd set=1 received=SIZE size=SIZE
kiv_install_hook_pre_metainstall set=1 image=IMG size=SIZE release=2.1-7 id=REL-2.1.7
kiv_install_hook_pre_install set=1 active=0 plan=KNL:write,ROOT:write,APPL:write
kiv_install_hook_post_write_out set=1 active=0
kiv_install_hook_post_activate set=1 active=1 test=1 dryrun=0
EOF
    trace_case activate dev 0 activate SET1 <<'EOF'
kiv_activate_hook_post active=1 name=SET1 device=/dev/mtd%i hostconfig_parts=1
EOF
    # Set 2's kernel partition refuses the write: the install fails after the write-out.
    describe dev2
    trace_case write-fails dev2 1 --fault write:mtd10:0 -- install "$work/r1.zunf" 2 <<'EOF'
kiv_install_hook_data_rcvd set=2 received=SIZE size=SIZE
kiv_install_hook_pre_metainstall set=2 image=IMG size=SIZE release=2.1-7 id=REL-2.1.7
kiv_install_hook_pre_install set=2 active=0 plan=KNL:write,ROOT:write,APPL:write
kiv_install_hook_post_write_out set=2 active=0
kiv_install_hook_on_failure set=2 result=1
EOF
    # Blank flash, no default to rebuild from: the hook lets the install go on, poolless.
    trace_case lost-hostconfig blank 9 install "$work/r1.zunf" 2 <<'EOF'
kiv_install_hook_hcfg_fail set=2 rebuild=0
kiv_install_hook_data_rcvd set=2 received=SIZE size=SIZE
EOF
}


case_signed_release() {
    local key=$work/key.pem
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$key" 2>/dev/null
    openssl pkey -in "$key" -pubout -out "$work/key.pub.pem"
    # "tampered": one bit off in each application byte, CRCs right: only the signature tells.
    release "$work/signed.zunf" 2.1.7 0x41
    release "$work/tampered.zunf" 2.1.7 0x43
    cp "$work/signed.zunf" "$work/unsigned.zunf"
    openssl dgst -sha256 -sign "$key" -out "$work/signed.zunf.sig" "$work/signed.zunf"
    cp "$work/signed.zunf.sig" "$work/tampered.zunf.sig"
    describe dev

    # CASE IMAGE PUBLIC-KEY EXIT MESSAGE; a refusal goes to stderr too and writes nothing.
    while read -r name image pub want_exit message; do
        local exit=0 lines ops
        lines=$(wc -l <"$work/dev/events")
        on dev -- env LD_PRELOAD="$KIV_SIGNED_PLUGIN" KIV_RELEASE_PUBKEY="$work/$pub" \
            "$KIV" install "$work/$image" 1 >"$work/$name.out" 2>&1 || exit=$?
        [ "$exit" = "$want_exit" ] || fail "$name: exit $exit, not $want_exit: $(cat "$work/$name.out")"
        [ "$want_exit" = 0 ] || message="refusing IMG: $message"
        message=${message//IMG/$work/$image}
        message=${message//KEY/$work/$pub}
        grep -qF "KIV	signed-release: $message" "$work/dev/syslog" || fail "$name: not in syslog"
        ops=$(tail -n +$((lines + 1)) "$work/dev/events" | grep -cE '^(erase|write) ' || true)
        [ $((want_exit == 0)) = $((ops != 0)) ] || fail "$name: $ops erases and writes"
        [ "$want_exit" = 0 ] || grep -qxF "signed-release: $message" "$work/$name.out" ||
            fail "$name: message: $(cat "$work/$name.out")"
    done <<'EOF'
tampered tampered.zunf key.pub.pem 21 signature IMG.sig does not match it (public key KEY)
unsigned unsigned.zunf key.pub.pem 20 cannot read signature IMG.sig: No such file or directory
no-key   signed.zunf   missing.pem 22 cannot load public key KEY: No such file or directory
signed   signed.zunf   key.pub.pem 0  IMG: signature IMG.sig verified with KEY
EOF
}


# The set booted last, the active set and the states of sets 1 and 2 (V, T, B) of "dev".
boot_status() {
    local cmdline booted active stored states=""
    cmdline=$(cat "$work/dev/cmdline")
    booted=$(grep -o 'KIVSET=[A-Z0-9]*' <<<"$cmdline" | cut -d= -f2)
    active=$(on dev --cmdline "$cmdline" -- "$KIV" getrh active |
        sed -n 's/^# Selected Partition Set: //p')
    for stored in $(od -An -tu1 -j 131070 -N2 "$work/dev/flash/mtd5.img"); do
        case $((~stored & 3)) in 1) states+=T ;; 3) states+=B ;; *) states+=V ;; esac
    done
    echo "$booted $active $states"
}

case_boot() {
    local loader=$examples/boot/sim-bootloader.sh script=$examples/boot/kiv-boot.sh
    release "$work/r1.zunf" 2.1.7 0x41
    release "$work/r2.zunf" 2.1.8 0x61
    describe dev
    # boot HEALTH: loader, then boot script; crash: loader alone; others: on the booted set.
    local step arg want_exit want exit got
    while read -r step arg want_exit want; do
        [[ -z "$step" || "$step" == "#"* ]] && continue
        exit=0
        case $step in
            boot) on dev -- env KIV_BOOT_REBOOT=true sh "$loader" sh "$script" "$arg" ;;
            crash) on dev -- sh "$loader" ;;
            install | verify)
                local args=("$arg") && [ "$step" = install ] && args=("$work/$arg" -1 -test)
                on dev --cmdline "$(cat "$work/dev/cmdline")" -- "$KIV" "$step" "${args[@]}" ;;
        esac >"$work/step.out" 2>&1 || exit=$?
        got="$exit $(boot_status)"
        want=$(tr -s ' ' <<<"$want_exit $want")
        [ "$got" = "$want" ] ||
            fail "$step $arg: got '$got', not '$want'"$'\n'"$(cat "$work/step.out")"
    done <<'EOF'
# STEP   ARG      EXIT  BOOTED   ACTIVE  STATES
boot     true     0     SAFESET  0       VV
install  r1.zunf  0     SAFESET  1       TV
boot     true     0     SET1     1       VV
# Fails its health check, never reaches the boot script (crash), passes: it stays.
install  r2.zunf  0     SET1     2       VT
boot     false    1     SET2     1       VV
boot     true     0     SET1     1       VV
verify   SET1     0     SET1     1       VV
install  r2.zunf  0     SET1     2       VT
crash    -        0     SET2     2       VB
boot     true     0     SET1     1       VV
install  r2.zunf  0     SET1     2       VT
boot     true     0     SET2     2       VV
boot     true     0     SET2     2       VV
verify   SET2     0     SET2     2       VV
EOF
}


# Both recipes configure kiv alike; so kiv installs the device's files and nothing else.
case_recipes() {
    local opts build=$KIV_RECIPE_BUILD dest=$work/dest files extra
    opts=$(grep -o -- '-DKIV_[A-Z_]*=[A-Z0-9]*' "$examples/yocto/kiv_git.bb" | sort)
    [[ -n $opts && $opts == "$(grep -o -- '-DKIV_[A-Z_]*=[A-Z0-9]*' \
        "$examples/buildroot/kiv.mk" | sort)" ]] || fail "kiv_git.bb and kiv.mk options: $opts"
    # shellcheck disable=SC2086 # one option a word
    { "$CMAKE" -S "$KIV_SOURCE_DIR" -B "$build" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX=/usr $opts && "$CMAKE" --build "$build" -j2 &&
        DESTDIR=$dest "$CMAKE" --install "$build"; } >"$work/build.out" 2>&1 ||
        fail "configure, build or install: $(tail -n 20 "$work/build.out")"
    files=$(cd "$dest" && find . ! -type d | sort)
    [ -x "$dest/usr/bin/kiv" ] || fail "no usr/bin/kiv in: $files"
    cmp "$dest/usr/include/kiv_plugin.h" "$KIV_SOURCE_DIR/include/kiv_plugin.h" ||
        fail "usr/include/kiv_plugin.h is not include/kiv_plugin.h"
    local shipped='bin/kiv|include/kiv_plugin\.h|share/man/man[1-8]/kiv[^/]*|share/doc/kiv/[^/]+'
    shipped+='|share/bash-completion/completions/kiv'
    extra=$(grep -vxE "\./usr/($shipped)" <<<"$files" || true)
    [ -z "$extra" ] || fail "installed besides the device's files:"$'\n'"$extra"
}

case ${1:-} in
    plugin | signed-release | boot | recipes) "case_${1//-/_}" ;;
    *) fail "usage: $0 plugin|signed-release|boot|recipes" ;;
esac
echo "ok: $1"
