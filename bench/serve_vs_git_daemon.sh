#!/usr/bin/env bash
# Times Corvane's daemon against `git daemon` on the same history, interleaved in one run:
# a full push into an empty repository, a full clone (warm object cache), a clone with a cold
# cache (every object from the record store), ls-remote, and a fetch of one new commit.
# Prints each Corvane/git-daemon ratio and the Corvane server's peak memory.
#
# usage: [TMPDIR=DIR] bench/serve_vs_git_daemon.sh [BUILD_DIR] [BUNDLE]
#
# Both servers keep their data under TMPDIR. On an ext4 file system without a journal, creating
# files is very slow for a few minutes after many were deleted (the kernel skips recently freed
# inodes), which swamps the push and cold clone figures; TMPDIR=/dev/shm measures the servers
# rather than that.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
bundle=${2:-$here/../shared/testdata/lz4.bundle}
corvane=$build/src/corvane

work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT
export XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache HOME=$work
export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null
export GIT_AUTHOR_NAME=Bench GIT_AUTHOR_EMAIL=bench@example.com
export GIT_COMMITTER_NAME=Bench GIT_COMMITTER_EMAIL=bench@example.com

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
now() { date +%s.%N; }
elapsed() { python3 -c "print(f'{$2 - $1:.3f}')"; }

git clone -q --mirror "$bundle" "$work/source"
mkdir "$work/daemon"

cport=$(free_port)
"$corvane" serve --port "$cport" 2> "$work/corvane.log" &
cpid=$!
gport=$(free_port)
git daemon --reuseaddr --listen=127.0.0.1 --port="$gport" --base-path="$work/daemon" \
    --export-all --enable=receive-pack 2> "$work/daemon.log" &
sleep 1
"$corvane" create bench > /dev/null 2>&1
git init -q --bare "$work/daemon/bench"

url_corvane="git://127.0.0.1:$cport/bench"
url_daemon="git://127.0.0.1:$gport/bench"

declare -A corvane_time daemon_time
measure() {  # name, then the command with URL standing for the server's address
    local name=$1; shift
    local start end
    start=$(now); "${@//URL/$url_corvane}" > /dev/null 2>&1; end=$(now)
    corvane_time[$name]=$(elapsed "$start" "$end")
    start=$(now); "${@//URL/$url_daemon}" > /dev/null 2>&1; end=$(now)
    daemon_time[$name]=$(elapsed "$start" "$end")
}

measure push git -C "$work/source" push -q --mirror URL
rm -rf "$work/c1" "$work/d1"
start=$(now); git clone -q --bare "$url_corvane" "$work/c1"; end=$(now); corvane_time[warm_clone]=$(elapsed "$start" "$end")
start=$(now); git clone -q --bare "$url_daemon" "$work/d1"; end=$(now); daemon_time[warm_clone]=$(elapsed "$start" "$end")
rm -rf "$work/cache/corvane"
start=$(now); git clone -q --bare "$url_corvane" "$work/c2"; end=$(now); corvane_time[cold_clone]=$(elapsed "$start" "$end")
start=$(now); git clone -q --bare "$url_daemon" "$work/d2"; end=$(now); daemon_time[cold_clone]=$(elapsed "$start" "$end")
measure ls_remote git ls-remote URL

# One new commit, pushed to both, then fetched by the older clones.
git clone -q -b dev "$bundle" "$work/edit"
git -C "$work/edit" commit -q --allow-empty -m "one more"
git -C "$work/edit" push -q "$url_corvane" HEAD:refs/heads/dev 2>/dev/null
git -C "$work/edit" push -q "$url_daemon" HEAD:refs/heads/dev 2>/dev/null
start=$(now); git -C "$work/c1" fetch -q "$url_corvane" dev; end=$(now); corvane_time[fetch_one]=$(elapsed "$start" "$end")
start=$(now); git -C "$work/d1" fetch -q "$url_daemon" dev; end=$(now); daemon_time[fetch_one]=$(elapsed "$start" "$end")

peak=$(awk '/VmHWM/ {print $2 / 1024 " MB"}' "/proc/$cpid/status")
printf '%-12s %10s %10s %8s\n' operation corvane git-daemon ratio
for name in push warm_clone cold_clone ls_remote fetch_one; do
    c=${corvane_time[$name]}; d=${daemon_time[$name]}
    printf '%-12s %9ss %9ss %7sx\n' "$name" "$c" "$d" "$(python3 -c "print(f'{$c / max($d, 0.001):.1f}')")"
done
echo "corvane serve peak memory: $peak"
