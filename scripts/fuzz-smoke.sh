#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (build-fuzz/, -DAVQVL_FUZZ=ON) and runs
# each for FUZZ_SECONDS (default 30) over a scratch copy of its committed seed
# corpus in fuzz/corpus/<target>. Fails if any target crashes, leaks, times out
# or reports undefined behaviour; the input that did it is kept and named.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${FUZZ_BUILD_DIR:-build-fuzz}
seconds=${FUZZ_SECONDS:-30}
jobs=${JOBS:-2}
targets=(fuzz_parser fuzz_escape fuzz_utf8 fuzz_probes fuzz_transport fuzz_service fuzz_head fuzz_news)

instrument="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
start=$(date +%s)
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DAVQVL_FUZZ=ON -DBUILD_TESTING=OFF \
    -DCMAKE_C_FLAGS="$instrument" -DCMAKE_CXX_FLAGS="$instrument" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
    -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build "$build" -j "$jobs" --target fuzzers
built=$(date +%s)

export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:suppressions=$root/scripts/ubsan.supp"
export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp:print_suppressions=0"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=()
summary=()
for target in "${targets[@]}"; do
    corpus="$scratch/$target/corpus"
    artifacts="$root/$build/artifacts/$target"
    mkdir -p "$corpus" "$artifacts"
    cp fuzz/corpus/"$target"/* "$corpus"/
    log="$root/$build/$target.log"
    if "$build/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -max_len=8192 -print_final_stats=1 -artifact_prefix="$artifacts/" \
        "$corpus" >"$log" 2>&1; then
        status=ok
    else
        status=FAILED
        failed+=("$target")
        tail -n 40 "$log" >&2
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    summary+=("$(printf '%-16s %-7s %10s runs, corpus %s -> %s' "$target" "$status" \
        "${runs:-?}" "$(ls fuzz/corpus/"$target" | wc -l)" "$(ls "$corpus" | wc -l)")")
done
end=$(date +%s)
printf '%s\n' "${summary[@]}"
echo "fuzz-smoke: build $((built - start)) s, fuzzing $((end - built)) s"
if [[ ${#failed[@]} -gt 0 ]]; then
    echo "fuzz-smoke: failed: ${failed[*]} (inputs in $build/artifacts/, logs in $build/*.log)" >&2
    exit 1
fi
