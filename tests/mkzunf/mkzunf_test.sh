#!/usr/bin/env bash
# mkzunf's command line: manifest and -e agree, each output kind's bytes are pinned (checked
# by an independent decoder when taken), bad input is refused.
# Usage: mkzunf_test.sh MKZUNF
set -euo pipefail
mkzunf=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed=0
fail() { echo "FAIL $*" && failed=1; }

directives=('release version=1.2.3 date=2026-01-02 build_id=B products=m1,m2 text=hello'
    'kivm line=KNL,1' 'software name=KNL version=4.5.6 size=5000 fill=0x5a'
    'data name=D text=abc' 'raw type=9 name=R hdr_length=40 header=0102 text=zz')
args=()
for d in "${directives[@]}"; do args+=(-e "$d"); done
printf '%s\n' '# comment' "${directives[@]}" >manifest
"$mkzunf" image -o image manifest
"$mkzunf" image -o same "${args[@]}"
cmp -s image same || fail "manifest and -e directives differ"
"$mkzunf" hostconfig -o hostconfig --data=X=manifest
"$mkzunf" partition -o partition --wts=3 --name=N --version=1.2.3 --size=300 --fill=0x11 \
    --gap-fill=0x22 --pad=1024
sha256sum image hostconfig partition >got
cat >want <<'SUMS'
a25557e89a0204d4ce3d125a18778ed91bc24a10f97c58601316f172d2668cf3  image
36b375f751a4195c5a28805d3143f7d96e81206cde7dabded7d83fa6420c3a52  hostconfig
fc235df6d9826959ca6c8010c940b25db7b1ec6bb656d9543d6d198157bfb250  partition
SUMS
diff want got || fail "output bytes changed"

# Refused with exit 1, a message and no output.
echo 'release version=1.0' >bad
for args in "frobnicate -o out" "image -o out" "image -o out bad"; do
    # shellcheck disable=SC2086 # one argument a word
    "$mkzunf" $args 2>err && rc=0 || rc=$?
    [ "$rc" = 1 ] && grep -q '^mkzunf: ' err && [ ! -e out ] || fail "$args: exit $rc: $(cat err)"
done
exit "$failed"
