#!/usr/bin/env bash
# A fuzzing campaign: builds the fuzz targets of fuzz/ with clang's libFuzzer
# under AddressSanitizer and UndefinedBehaviorSanitizer, then runs each target
# for the given number of seconds, one after the other on one core, starting
# from its corpus in fuzz/corpus/<target>. Afterwards the corpus is merged
# down to the inputs that add coverage; files named fixed-* (inputs that once
# failed) are always kept. Logs go to build/fuzz/logs, crashing inputs to
# build/fuzz/crashes/<target>.
#
# usage: tools/fuzz.sh seconds_per_target [target...]
#        targets: image_layer image_stack fit_file command_line (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:?usage: tools/fuzz.sh seconds_per_target [target...]}
shift
targets=("$@")
((${#targets[@]} > 0)) || targets=(image_layer image_stack fit_file command_line)

bash tools/install-deps.sh
dpkg -s clang libclang-rt-dev >/dev/null 2>&1 || apt-get install -y -qq clang libclang-rt-dev
cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
    -DBUILD_TESTING=OFF -DTORVEL_BUILD_BENCHMARKS=OFF -DTORVEL_FUZZ=ON \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
cmake --build build/fuzz -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p build/fuzz/logs
for t in "${targets[@]}"; do
    work=build/fuzz/work/$t
    crashes=build/fuzz/crashes/$t
    mkdir -p "$work" "$crashes"
    log=build/fuzz/logs/$t.log
    echo "fuzzing $t for $seconds s (log: $log)"
    status=0
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        "build/fuzz/fuzz/fuzz_$t" "$work" "fuzz/corpus/$t" -max_total_time="$seconds" \
        -max_len=8192 -timeout=10 -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
        -artifact_prefix="$crashes/" >"$log" 2>&1 || status=$?
    grep -E '^stat::number_of_executed_units' "$log" || true
    if ((status != 0)); then
        echo "$t: the target failed; the input is in $crashes, the report in $log"
        continue
    fi
    merged=build/fuzz/merged/$t
    rm -rf "$merged" && mkdir -p "$merged"
    "build/fuzz/fuzz/fuzz_$t" -merge=1 -close_fd_mask=3 "$merged" "fuzz/corpus/$t" "$work" \
        >>"$log" 2>&1
    find "fuzz/corpus/$t" -maxdepth 1 -type f ! -name 'fixed-*' -delete
    cp "$merged"/* "fuzz/corpus/$t/"
    echo "$t: corpus of $(ls "fuzz/corpus/$t" | wc -l) files, $(du -sh "fuzz/corpus/$t" | cut -f1)"
done
