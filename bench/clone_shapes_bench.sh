#!/usr/bin/env bash
# What a shallow clone and a partial clone save: a full clone, `--depth 1` and
# `--filter=blob:none` of the same history through `corvane serve`, each timed, with the size
# of the pack received (what went over the wire). The history's refs/heads/* and refs/tags/*
# are pushed into a store of its own once; later runs reuse it. The object cache is warmed by
# one full clone first, so the three compare the daemon's own work.
#
# usage: [TMPDIR=DIR] bench/clone_shapes_bench.sh [-b BUILD_DIR] [HISTORY]
#
# HISTORY is a bare repository or a bundle; without one, build/bench-histories/curl.git.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build
if [[ ${1:-} == -b ]]; then build=$(cd "$2" && pwd); shift 2; fi
history=${1:-$build/bench-histories/curl.git}
[[ -e $history ]] || { echo "no history at $history" >&2; exit 2; }
name=$(basename "$history" .git)
name=${name%.bundle}
work=${TMPDIR:-/tmp}/corvane-clone-bench-$name
export XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache HOME=$work XDG_RUNTIME_DIR=$work
export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null
unset CORVANE_CLOUD

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
url=git://127.0.0.1:$port/$name
[[ -e $work/filled ]] || { rm -rf "$work"; mkdir -p "$work"; }
"$build/src/corvane" serve --port "$port" 2> "$work/serve.log" &
pid=$!
trap 'kill $pid 2> /dev/null || true; rm -rf "$work/clones"' EXIT
for _ in $(seq 500); do (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null && break; sleep 0.01; done
if [[ ! -e $work/filled ]]; then
    "$build/src/corvane" create "$name" > /dev/null
    source=$history
    if [[ -f $history ]]; then
        git clone -q --bare "$history" "$work/source.git"
        source=$work/source.git
    fi
    echo "pushing $history into the store (once)…"
    git -C "$source" push -q "$url" 'refs/heads/*:refs/heads/*' 'refs/tags/*:refs/tags/*'
    touch "$work/filled"
fi

rm -rf "$work/clones"
mkdir -p "$work/clones"
git clone -q --bare "$url" "$work/clones/warm.git"
rm -rf "$work/clones/warm.git"

# One clone: "seconds packbytes".
measure() {
    local into=$work/clones/$1; shift
    local start end
    start=$(date +%s.%N)
    git clone -q --bare "$@" "$url" "$into"
    end=$(date +%s.%N)
    echo "$(echo "$end - $start" | bc) $(cat "$into"/objects/pack/*.pack | wc -c)"
}
read -r full_s full_b < <(measure full.git)
read -r depth_s depth_b < <(measure depth.git --depth 1)
read -r blobless_s blobless_b < <(measure blobless.git --filter=blob:none)

echo "$name; corvane at $(git -C "$here" rev-parse --short HEAD)"
printf '| clone              | seconds | pack MB | time, of full | bytes, of full |\n'
printf '|--------------------|---------|---------|---------------|----------------|\n'
row() {
    printf '| %-18s | %7.2f | %7.1f | %12.1f%% | %13.1f%% |\n' "$1" "$2" \
        "$(echo "$3 / 1048576" | bc -l)" "$(echo "100 * $2 / $full_s" | bc -l)" \
        "$(echo "100 * $3 / $full_b" | bc -l)"
}
row full "$full_s" "$full_b"
row "--depth 1" "$depth_s" "$depth_b"
row "--filter=blob:none" "$blobless_s" "$blobless_b"
