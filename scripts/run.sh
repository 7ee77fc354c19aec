#!/usr/bin/env bash
# Builds Corvane and starts it on the embedded store: the window (with the git daemon inside), or
# with arguments that command, such as `serve --port 9419` for the daemon alone. Installs what it
# needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target corvane
exec build/src/corvane "$@"
