#!/usr/bin/env bash
# Cross-builds the shipped kiv for the 32-bit ARM device and checks that it needs only
# libc at run time.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
    -DCMAKE_BUILD_TYPE=MinSizeRel -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_TOOLS=OFF \
    -DKIV_BUILD_BENCH=OFF >/dev/null
cmake --build build-arm -j"$(nproc)" --target kiv
needed=$(arm-linux-gnueabihf-readelf -d build-arm/src/kiv | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
echo "kiv (armhf) needs: $needed"
for lib in $needed; do
    case "$lib" in
        libc.so.*|ld-linux*) ;;
        *) echo "unexpected run-time dependency: $lib" >&2; exit 1 ;;
    esac
done
arm-linux-gnueabihf-strip -o build-arm/kiv.stripped build-arm/src/kiv
echo "kiv (armhf) stripped size: $(stat -c %s build-arm/kiv.stripped) bytes"
