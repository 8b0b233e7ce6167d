#!/usr/bin/env bash
# Runs the unit tests on other hosts under qemu-user: armhf and arm64 like the device, and
# s390x, a big-endian host. Each build holds only the unit tests (Debian's cross g++,
# GoogleTest built from its sources) and the check that the release image, the upgrade
# data record and the hostconfig image come out there byte for byte as natively.
# Usage: cross-test.sh [armhf|arm64|s390x]...   (default: all three; JOBS=N, default nproc)
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(armhf arm64 s390x)
lean=(-DCMAKE_BUILD_TYPE=MinSizeRel -DKIV_UNIT_TESTS_ONLY=ON -DKIV_BUILD_TOOLS=OFF
      -DKIV_BUILD_BENCH=OFF -DKIV_BUILD_EXAMPLES=OFF)

# The native writer of the persisted bytes: the reference for every emulated host.
cmake -S . -B build-cross-native "${lean[@]}" >/dev/null
cmake --build build-cross-native -j"$jobs" --target kiv_persisted_bytes
reference=$PWD/build-cross-native/tests/cross/kiv_persisted_bytes

failed=()

for arch in "${arches[@]}"; do
    case "$arch" in
        armhf) triplet=arm-linux-gnueabihf qemu=qemu-arm ;;
        arm64) triplet=aarch64-linux-gnu qemu=qemu-aarch64 ;;
        s390x) triplet=s390x-linux-gnu qemu=qemu-s390x ;;
        *) echo "unknown architecture: $arch" >&2; exit 2 ;;
    esac
    echo "== unit tests on $arch ($qemu)"
    dir=build-cross-$arch
    cmake -S . -B "$dir" "${lean[@]}" -DCMAKE_TOOLCHAIN_FILE="cmake/$triplet.cmake" \
        -DCMAKE_CROSSCOMPILING_EMULATOR="$qemu;-L;/usr/$triplet" \
        -DKIV_CROSS_REFERENCE="$reference" >/dev/null
    cmake --build "$dir" -j"$jobs"
    # Every host is tried, so that one run tells which hosts fail.
    ctest --test-dir "$dir" -L cross --output-on-failure -j"$jobs" --timeout 300 || failed+=("$arch")
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "unit tests failed on: ${failed[*]}" >&2
    exit 1
fi
