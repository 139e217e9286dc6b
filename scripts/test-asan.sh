#!/usr/bin/env bash
# Builds everything with AddressSanitizer, UndefinedBehaviorSanitizer and
# LeakSanitizer (build-asan/, Debug) and runs every test. Any report fails the run:
# undefined behaviour aborts, leaks fail the process at exit. Suppressions
# (scripts/*.supp) cover third-party libraries only, each with its reason.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${ASAN_BUILD_DIR:-build-asan}
jobs=${JOBS:-2}

sanitize="-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined"
start=$(date +%s)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_FLAGS="$sanitize" -DCMAKE_CXX_FLAGS="$sanitize" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
    -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build "$build" -j "$jobs"
built=$(date +%s)

export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1:abort_on_error=0:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:suppressions=$root/scripts/ubsan.supp"
export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp:print_suppressions=0"
# install_and_examples is left out: it builds the examples with the plain
# compiler flags against the instrumented library, which cannot link without the
# sanitizer runtime; `make test` runs it.
ctest --test-dir "$build" --output-on-failure -j "$jobs" -E '^install_and_examples$' "$@"
end=$(date +%s)
echo "test-asan: build $((built - start)) s, tests $((end - built)) s"
