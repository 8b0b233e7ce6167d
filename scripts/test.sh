#!/usr/bin/env bash
# Sets up a fresh Debian machine and runs every test: the formatting check, the native
# Release build with the whole test suite, the whole suite again under AddressSanitizer and
# UBSan, and the ARM cross builds of the shipped binary with their packages.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

scripts/deps.sh

echo "== formatting (the committed .clang-format)"
git ls-files -z '*.c' '*.h' '*.cpp' '*.hpp' | xargs -0 clang-format --dry-run --Werror

echo "== native Release build and tests"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs" --timeout 300

echo "== the whole suite again under AddressSanitizer and UBSan"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKIV_SANITIZE=ON -DKIV_BUILD_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
# The end-to-end tests run the instrumented kiv in the device sandbox, where LeakSanitizer
# cannot work, and some preload a plug-in ahead of the ASan run-time: both checks are off
# for them; every overrun and undefined behaviour still stops the run. The kernel test is
# left to the plain build: it checks the simulator against the kernel's MTD driver, and the
# instrumented kiv adds nothing there but minutes of emulated start-up.
ASAN_OPTIONS=detect_leaks=0:verify_asan_link_order=0 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs" --timeout 900 -LE kernel

echo "== ARM cross builds of kiv (armhf, arm64) and their packages"
scripts/build-cross.sh

echo "== unit tests and persisted bytes on armhf, arm64 and s390x under qemu-user"
scripts/cross-test.sh

echo "== benchmarks, quick (checks that every row works; the figures are not judged)"
scripts/bench.sh --quick

echo "== libFuzzer targets, a bounded run each on their seeds and regression inputs"
scripts/fuzz.sh
