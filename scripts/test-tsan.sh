#!/usr/bin/env bash
# Builds what the multi-threaded tests need with ThreadSanitizer (build-tsan/)
# and runs the tests labelled threads. Any report fails the run: TSan makes the
# reporting process exit non-zero, the daemon included (the test checks its
# exit code). Suppressions (scripts/tsan.supp) cover third-party libraries only.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${TSAN_BUILD_DIR:-build-tsan}
jobs=${JOBS:-2}

# -Wno-tsan: GCC cannot instrument std::atomic_thread_fence and says so for
# each use in Boost.Asio's fenced blocks (around completion handlers, which
# the synchronous HTTP backend never runs); the warning is about Asio, not us.
sanitize="-fsanitize=thread -fno-omit-frame-pointer -Wno-tsan"
start=$(date +%s)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS="$sanitize" -DCMAKE_CXX_FLAGS="$sanitize" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" \
    -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=thread" >/dev/null
cmake --build "$build" -j "$jobs" --target ThreadedConnectionTest ServiceEngineTest HttpBackendTest \
    HttpServerTest StoreConformanceTest RedisStoreTest quorveld quorvel
built=$(date +%s)

export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/tsan.supp"
ctest --test-dir "$build" --output-on-failure -j "$jobs" -L threads "$@"
end=$(date +%s)
echo "test-tsan: build $((built - start)) s, tests $((end - built)) s"
