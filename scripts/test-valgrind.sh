#!/usr/bin/env bash
# Runs the in-process test programs of the everyday build ($BUILD_DIR, built by
# `make build`) under valgrind memcheck. Any invalid access, use of an
# uninitialised value or definite/indirect leak fails the run. The daemon, load
# and install tests are left out: they drive other processes, which memcheck
# would not follow, and their time-outs assume native speed. HttpBackendTest
# stays: the backend and its fake servers run in the process under memcheck
# (the quorveld and quorvel it starts run natively).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
programs=(
    client/client_tests text/text_tests xml/xml_tests
    transport/TransportTest engine/ServiceEngineTest engine/StoreConformanceTest
    engine/SqliteStoreTest tools/tools_tests
    hardening/hardening_parser_tests xml/xml_fast_path_tests
    transport/HttpBackendTest
)
start=$(date +%s)
failed=()
for program in "${programs[@]}"; do
    log="$build/tests/$(basename "$program").memcheck.log"
    # Processes a test forks (HttpBackendTest's child) are not checked: they
    # end with _exit, holding the parent's heap of threads that do not exist in
    # them, which memcheck would report as lost.
    # The 2 GiB endless response is left to the native run: memcheck would
    # copy it for minutes and learns nothing a smaller answer does not show.
    # So is the test whose forked child must end normally (exit handlers and
    # all): memcheck's leak check at that exit would fail it for the heap above.
    if GTEST_FILTER='-*EndlessResponse*:*ForkedChildren*' LANG= LC_ALL= valgrind -q --error-exitcode=99 --leak-check=full --child-silent-after-fork=yes \
        --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect \
        "$build/tests/$program" >"$log" 2>&1; then
        echo "memcheck ok      $program"
    else
        echo "memcheck FAILED  $program (log: $log)"
        tail -n 40 "$log" >&2
        failed+=("$program")
    fi
done
echo "test-valgrind: $(( $(date +%s) - start )) s"
[[ ${#failed[@]} -eq 0 ]]
