#!/usr/bin/env bash
# Builds torvel and runs every test twice: first with warnings as errors, then
# under AddressSanitizer (with LeakSanitizer) and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
jobs=$(nproc)

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTORVEL_WERROR=ON
cmake --build build/release -j"$jobs"
ctest --test-dir build/release --output-on-failure -j"$jobs"

cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTORVEL_WERROR=ON \
    -DTORVEL_BUILD_BENCHMARKS=OFF \
    -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all"
cmake --build build/sanitize -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build/sanitize --output-on-failure -j"$jobs"
