#!/usr/bin/env bash
# Builds the benchmark programs (Release, in build-bench/) and runs them: a
# table on the terminal, one JSON file and one SVG picture (scripts/bench-svg.py)
# per program in $BUILD_DIR/bench/.
# The daemon figures need quorveld (built here) and, for the Redis baselines,
# redis-server and redis-benchmark; without them those benchmarks are left out,
# with a note.
set -euo pipefail
cd "$(dirname "$0")/.."

BENCH_DIR=build-bench
OUT_DIR="${BUILD_DIR:-build}/bench"
MIN_TIME="${BENCH_MIN_TIME:-0.2}"
mkdir -p "$OUT_DIR"

cmake -S . -B "$BENCH_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release -DAVQVL_BENCH=ON \
    -DBUILD_TESTING=OFF >/dev/null
targets=(avqvl_bench_text avqvl_bench_instant avqvl_bench_service avqvl_bench_store
    avqvl_bench_latency)
if cmake --build "$BENCH_DIR" --target help | grep -q '^quorveld:'; then
    targets+=(quorveld)
fi
cmake --build "$BENCH_DIR" -j "${JOBS:-2}" --target "${targets[@]}"

run() {  # name, then the command
    local name=$1
    shift
    echo
    echo "== $name"
    "$@" --benchmark_min_time="$MIN_TIME" --benchmark_out="$OUT_DIR/$name.json" \
        --benchmark_out_format=json
}

run text "$BENCH_DIR/bench/avqvl_bench_text"
run instant "$BENCH_DIR/bench/avqvl_bench_instant"
run embedded env -u QUORVEL_URL "$BENCH_DIR/bench/avqvl_bench_service"

# The daemon and Redis listen on loopback ports they pick themselves; both are
# stopped on every way out.
pids=()
cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    [[ -n "${work:-}" ]] && rm -rf "$work"
}
trap cleanup EXIT
work=$(mktemp -d)
draw() {
    python3 scripts/bench-svg.py "$OUT_DIR"
}

daemon="$BENCH_DIR/daemon/quorveld"
if [[ ! -x "$daemon" ]]; then
    echo
    echo "== daemon: skipped, quorveld was not built"
    draw
    exit 0
fi
# Starts quorveld with the options given, logging to $work/NAME.log; sets
# started_pid and started_port ("" when it did not say where it listens).
start_daemon() {
    local log="$work/$1.log"
    shift
    "$daemon" --listen 127.0.0.1:0 --quiet "$@" >"$log" 2>&1 &
    started_pid=$!
    pids+=($!)
    started_port=""
    for _ in $(seq 1 100); do
        started_port=$(sed -n 's/^quorveld listening on .*:\([0-9][0-9]*\)$/\1/p' "$log")
        [[ -n "$started_port" ]] && break
        sleep 0.05
    done
}
start_daemon quorveld
memory_pid=$started_pid
port=$started_port
if [[ -z "$port" ]]; then
    echo "== daemon: skipped, quorveld did not start:" >&2
    cat "$work/quorveld.log" >&2
    exit 1
fi

redis_port=""
if command -v redis-server >/dev/null; then
    redis_port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
    redis-server --port "$redis_port" --bind 127.0.0.1 --save "" --appendonly no \
        --daemonize no --dir "$work" >"$work/redis.log" 2>&1 &
    pids+=($!)
    for _ in $(seq 1 100); do
        if redis-cli -p "$redis_port" ping >/dev/null 2>&1; then
            break
        fi
        sleep 0.05
    done
    # Beside the stores: Redis's own LPUSH rate from 16 connections.
    if command -v redis-benchmark >/dev/null; then
        echo
        echo "== redis: LPUSH of 100-byte values, 16 connections (redis-benchmark)"
        redis-benchmark -h 127.0.0.1 -p "$redis_port" -c 16 -n 200000 -d 100 -t lpush -q |
            tr '\r' '\n' | grep -v '^$' | tail -n 1
    fi
else
    echo "(redis-server is not installed: no Redis store, PING or LPUSH baseline)"
fi
REDIS_PORT="$redis_port" run store "$BENCH_DIR/bench/avqvl_bench_store"
QUORVEL_URL="http://127.0.0.1:$port" REDIS_PORT="$redis_port" \
    run daemon "$BENCH_DIR/bench/avqvl_bench_service"

# Throughput beside Redis: daemon/fanOut16/putEvents (16 clients, each post
# fanned out to 15) against redis-benchmark's LPUSH with 16 clients, same run.
if [[ -n "$redis_port" ]] && command -v redis-benchmark >/dev/null; then
    echo
    echo "== redis-benchmark -c 16 -t lpush"
    redis-benchmark -h 127.0.0.1 -p "$redis_port" -c 16 -t lpush -n 200000 --csv \
        >"$OUT_DIR/redis-lpush.csv"
    cat "$OUT_DIR/redis-lpush.csv"
    python3 - "$OUT_DIR/daemon.json" "$OUT_DIR/redis-lpush.csv" <<'PY'
import csv, json, sys
posts = [b["items_per_second"] for b in json.load(open(sys.argv[1]))["benchmarks"]
         if b["name"].startswith("daemon/fanOut16/putEvents") and "items_per_second" in b]
rows = [r for r in csv.reader(open(sys.argv[2])) if r and r[0].startswith("LPUSH")]
if posts and rows:
    lpush = float(rows[0][1])
    print(f"fan-out posts/s {posts[0]:.0f}, Redis LPUSH/s {lpush:.0f}: "
          f"{posts[0] / lpush:.2f}x (target >= 0.5x)")
PY
else
    echo "(redis-benchmark or redis-server missing: no LPUSH baseline)"
fi


# The same 16 clients against a second quorveld on the Redis store (the script's
# Redis, no persistence): the stores compared where clients meet them.
if [[ -n "$redis_port" ]]; then
    start_daemon quorveld-redis --redis "redis://127.0.0.1:$redis_port"
    redis_daemon_port=$started_port
    QUORVEL_URL="http://127.0.0.1:$redis_daemon_port" \
        run daemonRedis "$BENCH_DIR/bench/avqvl_bench_service" \
        --benchmark_filter='fanOut16'
fi

# Waiting fetches: post-to-receipt on the memory store beside Redis's own
# LPUSH-to-BLPOP wake-up, idle waiters' cost; then across two daemons on Redis.
QUORVEL_URL="http://127.0.0.1:$port" QUORVEL_PID="$memory_pid" REDIS_PORT="$redis_port" \
    run latency "$BENCH_DIR/bench/avqvl_bench_latency"
if [[ -n "$redis_port" ]]; then
    start_daemon quorveld-redis2 --redis "redis://127.0.0.1:$redis_port"
    second_port=$started_port
    QUORVEL_URL="http://127.0.0.1:$redis_daemon_port" POST_PORT="$second_port" \
        run latencyRedis "$BENCH_DIR/bench/avqvl_bench_latency" \
        --benchmark_filter='postToReceipt'
fi
python3 - "$OUT_DIR" <<'PY'
import json, os, sys
def figures(name):
    path = os.path.join(sys.argv[1], name + ".json")
    if not os.path.exists(path):
        return {}
    return {b["name"]: b for b in json.load(open(path))["benchmarks"]}
memory, redis = figures("latency"), figures("latencyRedis")
for n in (1, 16):
    base = memory.get(f"latency/redisBlpop/{n}/real_time", {}).get("p50_us")
    for label, table, target in (("memory store", memory, 2), ("Redis store, 2 daemons", redis, 3)):
        ours = table.get(f"latency/postToReceipt/{n}/real_time", {})
        if base and "p50_us" in ours:
            print(f"{n} waiting, {label}: p50 {ours['p50_us']:.0f} us, p99 {ours['p99_us']:.0f} us;"
                  f" Redis BLPOP p50 {base:.0f} us: {ours['p50_us'] / base:.1f}x (target <= {target}x)")
PY

draw
