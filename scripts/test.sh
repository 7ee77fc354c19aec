#!/usr/bin/env bash
# Builds Corvane and runs every test: the whole suite once under AddressSanitizer +
# UndefinedBehaviorSanitizer (with each fuzz target's seed corpus, and the cloud suite a second
# time on a PostgreSQL 15 server it starts for the run), the cloud, storage, server and
# application tests under ThreadSanitizer, and each fuzz target briefly. Installs what it needs
# first. The sanitized builds use -O1 and line tables only, as the sanitizers advise: their tests
# run a third faster than unoptimised, and the reports still name every line.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc)
# Tests make and delete many small files; a memory-backed folder keeps that fast where it has
# room (at least 4 GiB free).
if [ -z "${TMPDIR:-}" ] && [ -w /dev/shm ] &&
   [ "$(df --output=avail -k /dev/shm | tail -n 1)" -ge 4194304 ]; then
  export TMPDIR=/dev/shm
fi
configure() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCORVANE_BUILD_BENCH=OFF -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    -DCORVANE_WERROR=ON "$@" > /dev/null
}
run_suite() {
  local dir=$1; shift
  configure "$dir" "$@"
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600
}

# The team store's tests run against a real PostgreSQL server of their own.
source scripts/postgres.sh
start_postgres
trap stop_postgres EXIT

echo "== desktop entry"
desktop-file-validate desktop/org.corvane.Corvane.desktop
sanitized=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1")
echo "== ThreadSanitizer build: the cloud, storage, server and application tests"
configure build-tsan "${sanitized[@]}" -DCORVANE_SANITIZE=thread
tsan_tests=(cloud storage protocol app)
cmake --build build-tsan -j "$jobs" --target "${tsan_tests[@]/%/_tests}"
export TSAN_OPTIONS=halt_on_error=1
for layer in "${tsan_tests[@]}"; do
  # The round trip of a whole real history is slow under ThreadSanitizer and runs on one thread.
  build-tsan/tests/$layer/${layer}_tests --gtest_brief=1 --gtest_filter='-RepositoryMeta.RoundTrips*'
done
unset TSAN_OPTIONS

echo "== fuzz targets, briefly (clang's libFuzzer with AddressSanitizer + UBSan)"
fuzzers=(lzfse_decode_fuzz git_socket_fuzz object_parsers_fuzz delta_fuzz repository_meta_fuzz
  stored_pack_fuzz)
CXX=clang++ configure build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVANE_FUZZ=ON \
  -DCORVANE_BUILD_TESTS=OFF
cmake --build build-fuzz -j "$jobs" --target "${fuzzers[@]}"
for fuzzer in "${fuzzers[@]}"; do
  # New inputs go to a scratch folder; the committed corpus only seeds the run.
  scratch=$(mktemp -d)
  if ! build-fuzz/fuzz/"$fuzzer" -max_total_time="${FUZZ_SECONDS:-10}" -max_len=65536 \
      "$scratch" fuzz/corpus/"$fuzzer" > "$scratch.log" 2>&1; then
    cat "$scratch.log"
    exit 1
  fi
  echo "$fuzzer: $(ls "$scratch" | wc -l) new inputs; $(tail -n 1 "$scratch.log")"
  rm -rf "$scratch" "$scratch.log"
done

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
ASAN_OPTIONS=detect_leaks=1 run_suite build-asan "${sanitized[@]}" -DCORVANE_SANITIZE=address
