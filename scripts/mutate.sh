#!/usr/bin/env bash
# Fault check: puts each deliberate fault of scripts/mutations.tsv into a scratch
# copy of the working tree, rebuilds that copy incrementally, runs ctest and says
# which tests caught the fault. A fault that no test catches SURVIVED: the suite
# does not hold the guarantee it breaks. A fault whose text is not found exactly
# once, or that does not compile, is BROKEN: the list needs mending, nothing was
# learned. The checkout itself is never modified. Slow; not run in CI.
set -euo pipefail
cd "$(dirname "$0")/.."

list=scripts/mutations.tsv
exclude='^(DurabilityTest|RedisScaleOutTest)$'
usage() {
    echo "usage: scripts/mutate.sh [-f ID,ID...] [-R REGEX] [-E REGEX] [-t SECONDS] [-j JOBS] [-x] [-n] [-l]" >&2
    echo "  -f only these faults   -R/-E ctest filters (default -E '$exclude'; -E '' runs all)" >&2
    echo "  -t per-test time-out (default 120)   -x stop at the first test that catches a fault" >&2
    echo "  -n no baseline run   -l list the faults and stop" >&2
    echo "  scratch copy and build in \$MUTATE_DIR (default build-mutate)" >&2
    exit 2
}
only='' include='' timeout=120 jobs=2 baseline=1 listonly=0 first=()
while getopts 'f:R:E:t:j:xnlh' opt; do
    case $opt in
    f) only=",$OPTARG," ;;
    R) include=$OPTARG ;;
    E) exclude=$OPTARG ;;
    t) timeout=$OPTARG ;;
    j) jobs=$OPTARG ;;
    x) first=(--stop-on-failure) ;;
    n) baseline=0 ;;
    l) listonly=1 ;;
    *) usage ;;
    esac
done
[[ $OPTIND -le $# ]] && usage

scratch=$(realpath -m "${MUTATE_DIR:-build-mutate}")
src=$scratch/src build=$scratch/build logs=$scratch/logs

# A fault line: id, file, text to find, replacement (may be empty), guarantee,
# separated by tabs (no product source holds one). '#' starts a comment line.
# The tabs become \x1f, which read does not merge when a field is empty.
faults=()
while IFS= read -r line; do
    [[ -z $line || $line == '#'* ]] && continue
    line=${line//$'\t'/$'\x1f'}
    [[ -z $only || $only == *",${line%%$'\x1f'*},"* ]] && faults+=("$line")
done <"$list"

if ((listonly)); then
    for line in "${faults[@]}"; do
        IFS=$'\x1f' read -r id file find _ why <<<"$line"
        n=$(python3 -c 'import sys; print(open(sys.argv[1]).read().count(sys.argv[2]))' "$file" "$find")
        printf '%-30s %-30s %-8s %s\n' "$id" "$file" "$([[ $n == 1 ]] && echo ok || echo "found $n")" "$why"
    done
    exit 0
fi

# Replaces FIND by REPL in FILE when FIND occurs exactly once.
apply() {
    python3 - "$@" <<'EOF'
import sys
path, find, repl = sys.argv[1:]
text = open(path, encoding='utf-8').read()
if text.count(find) != 1:
    sys.exit(1)
open(path, 'w', encoding='utf-8').write(text.replace(find, repl))
EOF
}

# Builds and runs ctest; prints the names of the failed tests. Every test sets a
# TIMEOUT property, which ctest --timeout does not override, so the generated
# test files get the per-test time-out instead.
run_tests() {
    local tag=$1
    cmake --build "$build" -j "$jobs" >"$logs/$tag.build.log" 2>&1 || return 3
    find "$build" -name CTestTestfile.cmake -exec sed -i -E "s/TIMEOUT \"[0-9.]+\"/TIMEOUT \"$timeout\"/g" {} +
    local args=(--test-dir "$build" -j "$jobs" --output-on-failure "${first[@]}")
    [[ -n $include ]] && args+=(-R "$include")
    [[ -n $exclude ]] && args+=(-E "$exclude")
    rm -f "$build/Testing/Temporary/LastTestsFailed.log"
    ctest "${args[@]}" >"$logs/$tag.ctest.log" 2>&1 || true
    grep -q 'tests passed' "$logs/$tag.ctest.log" || return 4
    cut -d: -f2 "$build/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | paste -sd, || true
}

# The copy is refreshed by content, not by time, so a file that a fault touched
# keeps its newer time and is rebuilt from its restored text.
mkdir -p "$src" "$logs"
rsync -rlp --checksum --delete --exclude='/build*/' --exclude='/.git' ./ "$src/"
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >"$logs/configure.log"

if ((baseline)); then
    failed=$(run_tests baseline) || { echo "baseline: build or ctest failed, see $logs" >&2; exit 1; }
    [[ -z $failed ]] || { echo "baseline: tests fail without a fault: $failed" >&2; exit 1; }
    echo "baseline: all selected tests pass"
fi

caught=0 survived=0 broken=0 current=''
saved=$scratch/original
trap '[[ -n $current ]] && cp "$saved" "$current"' EXIT
results=$scratch/results.txt
: >"$results"
for line in "${faults[@]}"; do
    IFS=$'\x1f' read -r id file find repl why <<<"$line"
    current=$src/$file
    cp "$current" "$saved"
    status=0 verdict=''
    if ! apply "$current" "$find" "$repl"; then
        verdict='BROKEN (text not found exactly once)'
    else
        failed=$(run_tests "$id") || status=$?
        case $status in
        0) verdict=${failed:+caught by $failed} ;;
        3) verdict='BROKEN (does not compile)' ;;
        *) verdict="BROKEN (ctest did not run, see $logs/$id.ctest.log)" ;;
        esac
    fi
    cp "$saved" "$current" && current=''
    verdict=${verdict:-SURVIVED}
    case $verdict in caught*) ((++caught)) ;; SURVIVED) ((++survived)) ;; *) ((++broken)) ;; esac
    printf '%-30s %s\n    %s\n' "$id" "$verdict" "$why" | tee -a "$results"
done
echo "caught $caught, survived $survived, broken $broken (table: $results)"
((broken == 0))
