#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan and UBSan on the product libraries) in
# build-fuzz and gives each a bounded run on its seeds and regression inputs (ctest -L fuzz).
# JOBS (default: the number of cores) bounds both the build and the parallel runs;
# KIV_FUZZ_RUNS (default 50000) is the number of inputs of each run, from a fixed seed.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}
dir=build-fuzz

CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIV_FUZZ=ON \
    -DKIV_SANITIZE=ON -DKIV_BUILD_BENCH=OFF -DKIV_BUILD_EXAMPLES=OFF \
    -DKIV_FUZZ_RUNS="${KIV_FUZZ_RUNS:-50000}" >/dev/null
cmake --build "$dir" --target fuzz_all -j"$jobs"
ctest --test-dir "$dir" -L fuzz --output-on-failure -j"$jobs"
