#!/usr/bin/env bash
# Times Corvane's daemon against `git daemon` on the same histories, interleaved in one run, and
# says which targets hold. For each history: a full push into an empty repository, clones with a
# warm and a cold object cache, ls-remote, four clones at once, a fetch with nothing new, a push of
# one commit on the longest branch that changes one line of one file, and the fetch of that
# commit. Memory is each server's peak resident size during the operation: Corvane's one process,
# and git daemon's largest process (it forks per request). Bytes: what each server keeps
# (Corvane's store and its object cache; git's repository after `git gc`), and what a clone and
# the one-line fetch receive.
# Last, each side consolidates the packs the two pushes left (`corvane repack`, `git repack -a -d`;
# memory: that process's peak), and a clone takes the result; the bytes kept are measured after.
#
# usage: [TMPDIR=DIR] bench/serve_vs_git_daemon.sh [-b BUILD_DIR] [HISTORY...]
#
# A HISTORY is a bundle or a bare repository; its refs/heads/* and refs/tags/* are pushed. Without
# one: the lz4 bundle of the test data and a bare clone of curl (about 290k objects, 40k commits),
# fetched once into BUILD_DIR/bench-histories.
#
# Both servers keep their data under TMPDIR (default /tmp); point it at an ext4 folder and at
# /dev/shm to compare disks.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build
if [[ ${1:-} == -b ]]; then build=$(cd "$2" && pwd); shift 2; fi
corvane=$build/src/corvane
histories=("$@")
if [[ ${#histories[@]} -eq 0 ]]; then
    curl_repo=$build/bench-histories/curl.git
    if [[ ! -d $curl_repo ]]; then
        mkdir -p "$(dirname "$curl_repo")"
        git clone -q --bare https://github.com/curl/curl.git "$curl_repo"
    fi
    histories=("$here/../shared/testdata/lz4.bundle" "$curl_repo")
fi

export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null
export GIT_AUTHOR_NAME=Bench GIT_AUTHOR_EMAIL=bench@example.com GIT_AUTHOR_DATE=2026-01-01T00:00:00
export GIT_COMMITTER_NAME=Bench GIT_COMMITTER_EMAIL=bench@example.com
export GIT_COMMITTER_DATE=2026-01-01T00:00:00

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
wait_port() { python3 - "$1" <<'EOF'
import socket, sys, time
for _ in range(500):
    try:
        socket.create_connection(("127.0.0.1", int(sys.argv[1])), 0.1).close(); sys.exit(0)
    except OSError:
        time.sleep(0.01)
sys.exit(1)
EOF
}
now() { date +%s.%N; }
# A failed operation ends the run: its figures would mean nothing.
run() {
    local name=$1; shift
    if ! "$@" > "$root/last.log" 2>&1; then
        echo "$name failed: $*" >&2; cat "$root/last.log" >&2; exit 1
    fi
}

# Runs git daemon until SIGTERM, then prints the largest peak resident size (KiB) of the
# processes it forked and waited for.
daemon_with_peak() { exec python3 - "$@" <<'EOF'
import resource, signal, subprocess, sys
out, args = sys.argv[1], sys.argv[2:]
child = subprocess.Popen(args)
signal.signal(signal.SIGTERM, lambda *_: child.terminate())
child.wait()
with open(out, "w") as f:
    f.write(str(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss))
EOF
}

# The same for one command run to its end (daemon_with_peak execs: a subshell keeps this one).
peak_of() { (daemon_with_peak "$@"); }

bench_history() {
    local history=$1 work=$2
    local source=$work/source.git
    git clone -q --bare "$history" "$source"  # heads and tags; a local clone links its objects
    local branch
    branch=$(git -C "$source" for-each-ref --format='%(refname:short)' refs/heads |
        while read -r b; do echo "$(git -C "$source" rev-list --count "refs/heads/$b") $b"; done |
        sort -rn | head -1 | cut -d' ' -f2)
    local objects
    objects=$(git -C "$source" rev-list --objects --branches --tags | wc -l)

    export XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache HOME=$work
    mkdir -p "$work/daemon"
    local cport gport
    cport=$(free_port)
    "$corvane" serve --port "$cport" 2> "$work/corvane.log" &
    local cpid=$!
    wait_port "$cport"
    "$corvane" create bench > /dev/null
    git init -q --bare "$work/daemon/bench"
    local url_c="git://127.0.0.1:$cport/bench"

    declare -gA ctime dtime cmem dmem
    # name, then the command, where URL stands for the server's address and SIDE for c or d
    # (folders of each server's own).
    measure() {
        local name=$1; shift
        local start end args
        args=("${@//URL/$url_c}")
        # The daemon returns memory once the last connection is closed, which may come a moment
        # after the client exits: the peak starts from what stays.
        sleep 1
        echo 5 > "/proc/$cpid/clear_refs"
        start=$(now); run "$name" "${args[@]//SIDE/c}"; end=$(now)
        ctime[$name]=$(python3 -c "print($end - $start)")
        cmem[$name]=$(awk '/VmHWM/ {print $2}' "/proc/$cpid/status")

        gport=$(free_port)
        (daemon_with_peak "$work/gpeak" git daemon --reuseaddr --listen=127.0.0.1 \
            --port="$gport" --base-path="$work/daemon" --export-all --enable=receive-pack \
            2>> "$work/daemon.log") &
        local gpid=$!
        wait_port "$gport"
        args=("${@//URL/git://127.0.0.1:$gport/bench}")
        start=$(now); run "$name" "${args[@]//SIDE/d}"; end=$(now)
        dtime[$name]=$(python3 -c "print($end - $start)")
        kill -TERM "$gpid"; wait "$gpid" || true
        dmem[$name]=$(cat "$work/gpeak")
    }

    measure push git -C "$source" push -q URL 'refs/heads/*:refs/heads/*' 'refs/tags/*:refs/tags/*'
    measure clone_warm git clone -q --bare URL "$work/warm_SIDE"
    # Cold: a daemon started afresh on an empty cache (a running one still holds the packs it
    # opened, deleted or not).
    kill "$cpid"; wait "$cpid" || true
    rm -rf "$work/cache/corvane"
    "$corvane" serve --port "$cport" 2>> "$work/corvane.log" &
    cpid=$!
    wait_port "$cport"
    measure clone_cold git clone -q --bare URL "$work/cold_SIDE"
    measure ls_remote git ls-remote URL
    # Four people cloning at once (a warm cache by now).
    measure clone_4x sh -c 'pids=""; for i in 1 2 3 4; do
        git clone -q --bare URL "$0/parallel_SIDE_$i" & pids="$pids $!"; done
        for pid in $pids; do wait "$pid" || exit 1; done; rm -rf "$0"/parallel_SIDE_*' "$work"
    for side in c d; do
        git clone -q --bare -b "$branch" --single-branch "$source" "$work/fetcher_$side"
    done
    measure fetch_none git -C "$work/fetcher_SIDE" fetch -q URL "$branch"

    # One new commit on the longest branch that adds a line to the largest file at the top of
    # its tree, the same objects for both servers.
    local commit entry name blob tree
    entry=$(git -C "$source" ls-tree -l "refs/heads/$branch" | awk '$2 == "blob"' |
        sort -k4 -n | tail -1)
    name=$(echo "$entry" | cut -f2)
    blob=$( (git -C "$source" cat-file blob "$(echo "$entry" | awk '{print $3}')"
        echo "one line") | git -C "$source" hash-object -w --stdin)
    tree=$(git -C "$source" ls-tree "refs/heads/$branch" |
        awk -F'\t' -v name="$name" -v blob="$blob" \
            '{ if ($2 == name) { split($1, f, " "); print f[1] " blob " blob "\t" $2 } else print }' |
        git -C "$source" mktree)
    commit=$(git -C "$source" commit-tree -p "refs/heads/$branch" -m "one more line" "$tree")
    git -C "$source" update-ref refs/bench/one "$commit"
    measure push_one git -C "$source" push -q URL "refs/bench/one:refs/heads/$branch"
    # The pack as it came over the wire (a client completes a thin pack before it keeps it).
    measure fetch_one env GIT_TRACE_PACKFILE="$work/fetched_SIDE.pack" \
        git -C "$work/fetcher_SIDE" fetch -q URL "$branch"
    git -C "$source" update-ref -d refs/bench/one

    # The store as its own checkpoints leave it: the write-ahead log folded into the file.
    store_bytes() {
        python3 -c "import sqlite3, sys; sqlite3.connect(sys.argv[1]).execute('PRAGMA wal_checkpoint(TRUNCATE)')" \
            "$work/data/corvane/cloud.sqlite"
        du -sb "$work/data/corvane" | cut -f1
    }
    local c_store c_store_graced
    c_store=$(store_bytes)

    # Consolidation of what the two pushes left (two packs on each side): Corvane's repack against
    # git's `repack -a -d`, each a process of its own; then a clone of the result.
    local start end
    start=$(now); run repack peak_of "$work/rpeak" "$corvane" repack bench; end=$(now)
    ctime[repack]=$(python3 -c "print($end - $start)"); cmem[repack]=$(cat "$work/rpeak")
    start=$(now)
    run repack peak_of "$work/rpeak" git -C "$work/daemon/bench" repack -a -d -q
    end=$(now)
    dtime[repack]=$(python3 -c "print($end - $start)"); dmem[repack]=$(cat "$work/rpeak")
    measure clone_repacked git clone -q --bare URL "$work/repacked_SIDE"

    # Bytes kept, and received.
    pack_bytes() {
        find "$1/objects/pack" -name '*.pack' -printf '%s\n' | awk '{s += $1} END {print s + 0}'
    }
    local c_cache d_repo c_clone d_clone c_fetch d_fetch
    # The packs a repack retired stay in the store for an hour, for readers of the state before.
    c_store_graced=$(store_bytes)
    c_cache=$(du -sb "$work/cache/corvane/Objects" | cut -f1)
    git -C "$work/daemon/bench" gc -q
    d_repo=$(du -sb "$work/daemon/bench/objects" | cut -f1)
    c_clone=$(pack_bytes "$work/warm_c")
    d_clone=$(pack_bytes "$work/warm_d")
    c_fetch=$(stat -c %s "$work/fetched_c.pack")
    d_fetch=$(stat -c %s "$work/fetched_d.pack")

    local size
    size=$(du -sh "$source" | cut -f1)
    echo
    echo "## $(basename "$history"): $objects objects, $size, longest branch $branch"
    echo
    printf '| %-10s | %9s | %9s | %6s | %11s | %11s | %-24s |\n' operation corvane git ratio \
        "corvane MiB" "git MiB" "target"
    printf '|%s|\n' "------------|-----------|-----------|--------|-------------|-------------|--------------------------"
    for name in push clone_warm clone_cold ls_remote clone_4x fetch_none push_one fetch_one \
        repack clone_repacked; do
        python3 - "$name" "${ctime[$name]}" "${dtime[$name]}" "${cmem[$name]}" "${dmem[$name]}" <<'EOF'
import sys
name, ct, dt, cm, dm = sys.argv[1], *map(float, sys.argv[2:])
ratio = ct / max(dt, 0.001)
limits = {"push": 1.5, "clone_warm": 1.0, "clone_cold": 1.0, "clone_4x": 1.2, "ls_remote": 1.5,
          "fetch_none": 1.5, "push_one": 2}
held = []
if name in limits:
    held.append(f"time ≤{limits[name]}× {'holds' if ratio <= limits[name] else 'MISSED'}")
if name in ("push", "clone_warm", "clone_cold", "clone_repacked"):
    held.append(f"mem ≤2× {'holds' if cm <= 2 * dm else 'MISSED'}")
if cm > 512 * 1024:
    held.append("mem >512 MiB MISSED")
print(f"| {name:<10} | {ct:8.3f}s | {dt:8.3f}s | {ratio:5.1f}× | {cm / 1024:11.0f} | "
      f"{dm / 1024:11.0f} | {', '.join(held):<24} |")
EOF
    done
    echo
    printf '| %-24s | %12s | %12s | %6s | %-14s |\n' bytes corvane git ratio target
    printf '|%s|\n' "--------------------------|--------------|--------------|--------|----------------"
    python3 - "$c_store" "$c_store_graced" "$c_cache" "$d_repo" "$c_clone" "$d_clone" "$c_fetch" \
        "$d_fetch" <<'EOF'
import sys
store, graced, cache, repo, cclone, dclone, cfetch, dfetch = map(int, sys.argv[1:])
def row(name, c, d, limit):
    ratio = c / max(d, 1)
    held = f"≤{limit}× {'holds' if ratio <= limit else 'MISSED'}"
    print(f"| {name:<24} | {c:12,} | {d:12,} | {ratio:5.2f}× | {held:<14} |")
row("store (git: gc'd repo)", store, repo, 1.2)
print(f"| {'store, repack retired':<24} | {graced:12,} | {repo:12,} | {graced / repo:5.2f}× | "
      f"{'for an hour':<14} |")
row("cache (git: gc'd repo)", cache, repo, 1.2)
row("clone received", cclone, dclone, 1.1)
row("one-line fetch received", cfetch, dfetch, 2)
EOF
    kill "$cpid"; wait "$cpid" || true
}

root=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$root"' EXIT
echo "corvane at $(git -C "$here" rev-parse --short HEAD), $(git --version), data under ${TMPDIR:-/tmp}"
n=0
for history in "${histories[@]}"; do
    n=$((n + 1))
    mkdir -p "$root/$n"
    bench_history "$history" "$root/$n"
done
