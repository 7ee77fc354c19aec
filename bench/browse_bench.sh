#!/usr/bin/env bash
# Browsing a real history in the window (bench/browse_bench.cpp): pushes a large history's
# refs/heads/* and refs/tags/* into a store of its own through `corvane serve` (once: later runs
# reuse the store, as a user's restart would), then measures the Commits tab, a directory of
# 10,000 entries and the preview of a 1 MB source file.
#
# usage: [TMPDIR=DIR] bench/browse_bench.sh [-b BUILD_DIR] [HISTORY]
#
# HISTORY is a bare repository or a bundle; without one, build/bench-histories/curl.git (a bare
# mirror of curl: about 35,000 commits on its first-parent line).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build
if [[ ${1:-} == -b ]]; then build=$(cd "$2" && pwd); shift 2; fi
history=${1:-$build/bench-histories/curl.git}
[[ -e $history ]] || { echo "no history at $history" >&2; exit 2; }
name=$(basename "$history" .git)
name=${name%.bundle}
work=${TMPDIR:-/tmp}/corvane-browse-bench-$name
export XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache HOME=$work XDG_RUNTIME_DIR=$work
export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null
unset CORVANE_CLOUD

if [[ ! -e $work/filled ]]; then
    rm -rf "$work"
    mkdir -p "$work"
    port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
    "$build/src/corvane" serve --port "$port" 2> "$work/serve.log" &
    pid=$!
    trap 'kill $pid 2>/dev/null || true' EXIT
    for _ in $(seq 500); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
        sleep 0.01
    done
    "$build/src/corvane" create "$name" > /dev/null
    source=$history
    if [[ -f $history ]]; then  # a bundle: pushed from a bare clone of it
        git clone -q --bare "$history" "$work/source.git"
        source=$work/source.git
    fi
    echo "pushing $history into the store (once)…"
    git -C "$source" push -q "git://127.0.0.1:$port/$name" \
        'refs/heads/*:refs/heads/*' 'refs/tags/*:refs/tags/*'
    kill "$pid"
    wait "$pid" || true
    trap - EXIT
    touch "$work/filled"
fi
echo "corvane at $(git -C "$here" rev-parse --short HEAD), data under ${TMPDIR:-/tmp}"
QT_QPA_PLATFORM=offscreen "$build/bench/browse_bench" "$name"
