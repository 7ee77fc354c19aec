#!/usr/bin/env bash
# The team store against the embedded one, in one run: a full push of a history's refs/heads/*
# and refs/tags/* into an empty repository, then a clone with a cold object cache, through
# `corvane serve` on each engine, and the ratio of their times. The PostgreSQL server is started
# for the run (scripts/postgres.sh), in a temporary folder on a Unix socket.
#
# usage: [TMPDIR=DIR] bench/team_store_bench.sh [-b BUILD_DIR] [HISTORY]
#
# HISTORY is a bundle or a bare repository; by default the lz4 bundle of the test data.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build
if [[ ${1:-} == -b ]]; then build=$(cd "$2" && pwd); shift 2; fi
corvane=$build/src/corvane
history=${1:-$here/../shared/testdata/lz4.bundle}
[[ -e $history ]] || { echo "no history at $history" >&2; exit 2; }

export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null
root=$(mktemp -d)
source "$here/scripts/postgres.sh"
start_postgres
pid=
cleanup() { [[ -n $pid ]] && kill "$pid" 2> /dev/null; stop_postgres; rm -rf "$root"; }
trap cleanup EXIT

source=$history
if [[ -f $history ]]; then
    git clone -q --bare "$history" "$root/source.git"
    source=$root/source.git
fi
objects=$(git -C "$source" count-objects -v | awk '/^(count|in-pack):/ { n += $2 } END { print n }')

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
seconds() { local start=$(date +%s.%N); "$@" > "$root/last.log" 2>&1 || { cat "$root/last.log" >&2; exit 1; }
            echo "$(date +%s.%N) - $start" | bc; }

# One engine: a fresh home, the daemon, a push and a clone. Prints "push clone" in seconds.
measure() {
    local home=$root/home-$1; shift
    mkdir -p "$home"
    export HOME=$home XDG_DATA_HOME=$home/data XDG_CACHE_HOME=$home/cache XDG_RUNTIME_DIR=$home
    "$corvane" create bench > /dev/null
    local port
    port=$(free_port)
    "$corvane" serve --port "$port" 2> "$home/serve.log" &
    pid=$!
    for _ in $(seq 500); do (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null && break; sleep 0.01; done
    local push clone
    push=$(seconds git -C "$source" push -q "git://127.0.0.1:$port/bench" \
        'refs/heads/*:refs/heads/*' 'refs/tags/*:refs/tags/*')
    kill "$pid"; wait "$pid" || true
    rm -rf "$home/cache"  # the clone reads every object back from the store
    "$corvane" serve --port "$port" 2> "$home/serve.log" &
    pid=$!
    for _ in $(seq 500); do (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null && break; sleep 0.01; done
    clone=$(seconds git clone -q --mirror "git://127.0.0.1:$port/bench" "$home/clone.git")
    kill "$pid"; wait "$pid" || true
    pid=
    echo "$push $clone"
}

unset CORVANE_CLOUD
read -r sqlite_push sqlite_clone < <(measure sqlite)
psql -q "$CORVANE_TEST_POSTGRES" -c "CREATE DATABASE bench"
"$corvane" store init "$CORVANE_TEST_POSTGRES dbname=bench" > /dev/null
"$corvane" store add-person "$CORVANE_TEST_POSTGRES dbname=bench" bench_person \
    bench@example.com Bench Person > /dev/null
export CORVANE_CLOUD="$CORVANE_TEST_POSTGRES dbname=bench user=bench_person"
read -r pg_push pg_clone < <(measure postgresql)

echo "$(basename "$history"): $objects objects; corvane at $(git -C "$here" rev-parse --short HEAD)"
printf '| operation        |  SQLite s | PostgreSQL s | ratio |\n'
printf '|------------------|-----------|--------------|-------|\n'
printf '| push             | %9.2f | %12.2f | %4.1fx |\n' "$sqlite_push" "$pg_push" \
    "$(echo "$pg_push / $sqlite_push" | bc -l)"
printf '| clone, cold cache| %9.2f | %12.2f | %4.1fx |\n' "$sqlite_clone" "$pg_clone" \
    "$(echo "$pg_clone / $sqlite_clone" | bc -l)"
