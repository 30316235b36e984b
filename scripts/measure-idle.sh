#!/usr/bin/env bash
# The daemon's own cost while idle: runs build/daemon/joulix under a private root
# with the core loggers and no system bus, lets it settle for 10 s, then reports the
# CPU time and the context switches of all its threads over SECONDS (default 300).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-300}
root=$(mktemp -d /tmp/joulix-idle-XXXXXX)
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$root"' EXIT
DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent build/daemon/joulix --root "$root" 2>/dev/null &
pid=$!
sleep 10
ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
switches() { cat /proc/"$pid"/task/*/status | awk '/voluntary_ctxt_switches/ {s += $2} END {print s}'; }
t0=$(ticks); c0=$(switches)
sleep "$seconds"
t1=$(ticks); c1=$(switches)
hz=$(getconf CLK_TCK)
echo "threads: $(ls /proc/$pid/task | wc -l)"
echo "cpu: $((t1 - t0)) ticks of 1/$hz s in $seconds s ($(awk -v t=$((t1 - t0)) -v hz="$hz" -v s="$seconds" 'BEGIN {printf "%.4f", t / hz / s * 100}') % of one core)"
echo "context switches: $((c1 - c0)) in $seconds s"
