#!/usr/bin/env bash
# Renders the main window in fixed states to PNG files under BUILD/screenshots/, offscreen, in the
# light and the dark palette, at normal and double pixel density; then, where Xvfb, openbox and
# xdotool are installed, the window's end-to-end tests on a real display add what a person saw
# there (display-*.png: files, a preview, a failed join, Contributors, and Contributors in GTK's
# dark theme). Builds what it needs first.
#
# usage: scripts/screenshots.sh [BUILD_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
cmake --build "$build" --target corvane_screenshots > /dev/null
out=$build/screenshots
rm -rf "$out"
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
render() {
    local name=$1; shift
    rm -rf "$work/home"
    mkdir -p "$work/home"
    env -u CORVANE_CLOUD HOME="$work/home" XDG_DATA_HOME="$work/home/data" \
        XDG_CACHE_HOME="$work/home/cache" XDG_RUNTIME_DIR="$work/home" \
        QT_QPA_PLATFORM=offscreen LANG=en_US.UTF-8 "$@" \
        "$build/tools/corvane_screenshots" "$out/$name" ${palette_arg:-} 2> "$work/log" ||
        { cat "$work/log" >&2; exit 1; }
}
palette_arg= render 1x
palette_arg=--dark render 1x
palette_arg= render 2x env QT_SCALE_FACTOR=2
palette_arg=--dark render 2x env QT_SCALE_FACTOR=2
if command -v Xvfb > /dev/null && command -v openbox > /dev/null && command -v xdotool > /dev/null; then
    cmake --build "$build" --target corvane e2e_tests > /dev/null
    "$build/tests/e2e/e2e_tests" --gtest_filter='Window.*' --gtest_brief=1 > "$work/log" 2>&1 ||
        { cat "$work/log" >&2; exit 1; }
fi
ls "$out"/*
