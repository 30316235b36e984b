#!/usr/bin/env bash
# Sets up, builds, and runs joulix once on an embedded default: a private root in
# the work tree (demo-root/), with no change to the system.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build-demo -DJOULIX_BUILD_TESTS=OFF -DJOULIX_BUILD_BENCH=OFF >/dev/null

root="$PWD/demo-root"
mkdir -p "$root"
ctl="build-demo/daemon/joulixctl --root $root"
$ctl defaults write JXRotateJoulix "1 day"
$ctl defaults write JXRotateJoulixDebug -bool YES
$ctl defaults write JXRunLoopDebug -bool YES

echo "== joulix --once under $root (system-log messages follow)"
build-demo/daemon/joulix --root "$root" --once --log-stderr
echo
echo "== where the output went"
echo "settings:        $root/var/mobile/Library/Preferences/com.brindle.joulix.plist"
echo "current log:     $root/var/mobile/Library/Logs/CurrentJoulix.joulix"
echo "rolled logs:     $root/var/mobile/Library/Logs/Faultkeeper/"
echo "archives:        $root/var/mobile/Library/Logs/JXArchive/"
echo "system log:      syslog (ident joulix), and standard error with --log-stderr"
echo
echo "== settings in force"
$ctl defaults read
if [ -f "$root/var/mobile/Library/Logs/CurrentJoulix.joulix" ]; then
  echo "== current log"
  cat "$root/var/mobile/Library/Logs/CurrentJoulix.joulix"
fi
