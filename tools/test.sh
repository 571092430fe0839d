#!/usr/bin/env bash
# Builds torvel and runs its tests twice: first a release build with warnings
# as errors and every test, then a build under AddressSanitizer (with
# LeakSanitizer) and UndefinedBehaviorSanitizer that runs every C++ unit and
# end-to-end test again, each test executable as one test. The second build
# leaves out the benchmarks and the checks of the built products (install,
# manual pages, Python reference fit), which the first build has already
# passed. Each step prints one line; the output of a failing step, or of
# failing tests, is shown in full.
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/quiet.sh
bash tools/install-deps.sh
jobs=$(nproc)
# A compiler cache, where one is installed, makes rebuilds of several
# checkouts of the project quick; a fresh machine has none and builds all.
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

# run_tests BUILD_DIR: CTest in parallel; on failure the failed tests' output.
run_tests() {
    local log=$1/ctest.log
    if ctest --test-dir "$1" -j"$jobs" --output-on-failure >"$log" 2>&1; then
        grep -E 'tests passed|Total Test time' "$log"
    else
        grep -vE '^ *Start +[0-9]+: |Test +#[0-9]+: .* Passed ' "$log"
        return 1
    fi
}

quietly "release: configure" build/release/configure.log \
    cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTORVEL_WERROR=ON "${launcher[@]}"
quietly "release: build" build/release/build.log cmake --build build/release -j"$jobs"
run_tests build/release

# -O1 with line tables only: the sanitizers' usual level, which compiles in
# about two thirds of the time of -O2 -g and still names file and line. No
# Python module: an instrumented module runs only with the sanitizer runtime
# preloaded into the interpreter, whose own memory then counts as leaked; the
# release build has tested the module over the same library code.
quietly "sanitizers: configure" build/sanitize/configure.log \
    cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" \
    -DTORVEL_WERROR=ON "${launcher[@]}" \
    -DTORVEL_BUILD_BENCHMARKS=OFF -DTORVEL_PRODUCT_TESTS=OFF -DTORVEL_TEST_EACH_CASE=OFF \
    -DTORVEL_PYTHON=OFF \
    -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all"
quietly "sanitizers: build" build/sanitize/build.log cmake --build build/sanitize -j"$jobs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1
run_tests build/sanitize
