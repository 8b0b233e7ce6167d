#!/usr/bin/env bash
# Cross-builds the shipped kiv for the ARM devices (armhf and arm64) with Debian's cross
# g++, checks that it needs only libc at run time, prints its stripped size and builds
# the device package for each architecture into out/packages.
# Usage: build-cross.sh [armhf|arm64]...   (default: both)
set -euo pipefail
cd "$(dirname "$0")/.."
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(armhf arm64)
mkdir -p out/packages
for arch in "${arches[@]}"; do
    case "$arch" in
        armhf) triplet=arm-linux-gnueabihf ;;
        arm64) triplet=aarch64-linux-gnu ;;
        *) echo "unknown architecture: $arch" >&2; exit 2 ;;
    esac
    dir=build-$arch
    cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="cmake/$triplet.cmake" \
        -DCMAKE_BUILD_TYPE=MinSizeRel -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_TOOLS=OFF \
        -DKIV_BUILD_BENCH=OFF -DKIV_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build "$dir" -j"$(nproc)"
    needed=$("$triplet-readelf" -d "$dir/src/kiv" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    echo "kiv ($arch) needs: $needed"
    for lib in $needed; do
        case "$lib" in
            libc.so.*|ld-linux*) ;;
            *) echo "unexpected run-time dependency: $lib" >&2; exit 1 ;;
        esac
    done
    "$triplet-strip" -o "$dir/kiv.stripped" "$dir/src/kiv"
    echo "kiv ($arch) stripped size: $(stat -c %s "$dir/kiv.stripped") bytes"
    (cd "$dir" && cpack -G DEB -C MinSizeRel >/dev/null)
    cp "$dir"/kiv_*_"$arch".deb out/packages/
    lintian --fail-on error out/packages/kiv_*_"$arch".deb
    echo "package: $(ls out/packages/kiv_*_"$arch".deb)"
done
