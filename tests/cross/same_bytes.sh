#!/usr/bin/env bash
# Runs the persisted-bytes writer natively and on the emulated host; fails where a file differs.
# Usage: same_bytes.sh WORKDIR NATIVE_PROGRAM EMULATED_COMMAND...
set -euo pipefail
work=$1 native=$2
shift 2
rm -rf "$work"
mkdir -p "$work/native" "$work/emulated"
timeout 60 "$native" "$work/native"
timeout 120 "$@" "$work/emulated"
status=0
for f in release.zunf kivl.rec hostconfig.img; do
    [ -s "$work/native/$f" ] || { echo "$f: not written"; exit 1; }
    cmp "$work/native/$f" "$work/emulated/$f" || status=1 # cmp names the first byte
done
[ $status -ne 0 ] || echo "release.zunf, kivl.rec and hostconfig.img match the native bytes"
exit $status
