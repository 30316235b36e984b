#!/usr/bin/env bash
# Configures and builds one build tree: scripts/build.sh DIR [cmake options...]
#
# A packager builds the release once, then installs it stripped into a staging root:
#   scripts/build.sh build -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
#     -DJOULIX_BUILD_TESTS=OFF -DJOULIX_BUILD_BENCH=OFF
#   DESTDIR=/tmp/stage cmake --install build --strip
# The unit is made at install time from the prefix in force (cmake --install --prefix
# may name another), so its ExecStart always names the installed daemon.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
ninja -C "$dir"
