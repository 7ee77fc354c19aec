#!/usr/bin/env bash
# Builds Corvane and runs every test: once in a normal build, once under AddressSanitizer +
# UndefinedBehaviorSanitizer. Installs what it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc)
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCORVANE_BUILD_BENCH=OFF "$@" > /dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600
}

echo "== normal build"
run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== ThreadSanitizer build: the server and storage tests"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVANE_SANITIZE=thread \
  -DCORVANE_BUILD_BENCH=OFF > /dev/null
cmake --build build-tsan -j "$jobs" --target storage_tests protocol_tests
export TSAN_OPTIONS=halt_on_error=1
# The round trip of a whole real history is slow under ThreadSanitizer and runs on one thread.
build-tsan/tests/storage/storage_tests --gtest_brief=1 --gtest_filter='-RepositoryMeta.RoundTrips*'
build-tsan/tests/protocol/protocol_tests --gtest_brief=1
unset TSAN_OPTIONS

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
ASAN_OPTIONS=detect_leaks=1 run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DCORVANE_SANITIZE=address
