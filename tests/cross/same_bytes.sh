#!/usr/bin/env bash
# Runs the persisted-bytes writer natively and on the emulated host and fails on the first
# byte in which any of its files differ.
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
    if ! out=$(cmp "$work/native/$f" "$work/emulated/$f" 2>&1); then
        byte=$(sed -n 's/.* differ: byte \([0-9]*\),.*/\1/p' <<<"$out")
        if [ -n "$byte" ]; then
            echo "$f: differs from the native bytes at offset $((byte - 1))"
        else
            echo "$f: $out" # one file is a prefix of the other
        fi
        status=1
    fi
done
[ $status -ne 0 ] || echo "release.zunf, kivl.rec and hostconfig.img match the native bytes"
exit $status
