#!/usr/bin/env bash
# The main job on a fresh machine: installs what is missing, builds kiv and its host
# tools, and runs the device demonstration inside a sandbox with the simulated flash of
# the default device layout. The flash images stay in out/demo/flash for inspection; run
# again to start from blank flash.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/deps.sh
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIV_BUILD_TESTS=OFF \
    -DKIV_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j"$(nproc)" --target kiv kiv-sandbox kiv-flashsim mkzunf

rm -rf out/demo
mkdir -p out/demo
exec build-demo/tools/sandbox/kiv-sandbox --dir "$root/out/demo" --keep "$root" -- \
    /bin/sh "$root/scripts/demo-device.sh" "$root/build-demo/src/kiv" "$root/build-demo/tools/mkzunf/mkzunf"
