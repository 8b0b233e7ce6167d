#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the simulated device need,
# only when some are missing. Safe to run again.
set -euo pipefail

packages=(
    build-essential cmake pkg-config clang-format
    libgtest-dev libgmock-dev libbenchmark-dev zlib1g-dev
    libfuse3-dev fuse3 mtd-utils
    g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user
    g++-aarch64-linux-gnu binutils-aarch64-linux-gnu g++-s390x-linux-gnu binutils-s390x-linux-gnu
    groff bash-completion lintian dpkg-dev libssl-dev openssl strace valgrind time
    qemu-system-x86 busybox-static cpio clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "deps: installing ${missing[*]}"
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
