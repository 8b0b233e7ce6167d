#!/usr/bin/env bash
# mkzunf from the command line: a manifest and the same directives given with -e make the
# same image; the bytes of each kind of output are pinned (an independent decoder checked
# them when they were taken, and every end-to-end test feeds such images to kiv); bad input
# is refused with exit 1, a message and no output file.
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

# message|arguments (split on spaces)
echo 'release version=1.0' >bad
echo 'data name=a text=xyz' >small
while IFS='|' read -r message line; do
    read -r -a words <<<"$line"
    rm -f out
    err=$("$mkzunf" "${words[@]}" 2>&1 >/dev/null) && rc=0 || rc=$?
    [ "$rc" = 1 ] && [[ $err == "mkzunf: "*"$message"* ]] && [ ! -e out ] ||
        fail "$line: exit $rc: $err"
done <<'ROWS'
missing -o OUT|image -e data
unknown command 'frobnicate'|frobnicate -o out
no parts given|image -o out
unknown directive 'bogus'|image -o out -e bogus
data: missing name=|image -o out -e data
bad:1: invalid version '1.0' (expected MAJOR.MINOR.BUILD)|image -o out bad
output of 60 bytes does not fit --pad=10|image -o out small --pad=10
a hostconfig image holds only data and raw parts|hostconfig -o out -e kivm
invalid wts '4'|partition -o out --wts=4 --name=A --version=1.0.0 --text=x
ROWS
exit "$failed"
