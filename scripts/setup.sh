#!/usr/bin/env bash
# Installs every Debian package Corvane needs to build, run, test and benchmark.
# Non-interactive and idempotent; run as root (or with sudo available).
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config git
  zlib1g-dev libdeflate-dev libssl-dev rapidjson-dev libsqlite3-dev libpq-dev
  postgresql-15
  libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format libclang-rt-14-dev ccache
  qt6-base-dev qt6-svg-dev qt6-multimedia-dev libqscintilla2-qt6-dev qt6-qpa-plugins fonts-dejavu-core
  desktop-file-utils xdg-utils shared-mime-info bc
  xvfb openbox xdotool imagemagick qt6-gtk-platformtheme
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
