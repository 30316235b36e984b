#!/usr/bin/env bash
# The daemon's own cost while idle: runs build/daemon/joulix under a private root
# with the core loggers and no system bus, lets it settle for 10 s, then reports the
# CPU time and the context switches of all its threads over SECONDS (default 300).
#
# With a umockdev device description as the second argument (bench/devices/laptop.umockdev
# has every device the measuring loggers read), the daemon runs under umockdev-run and
# sees those devices, and the kernel's suspend count, instead of this machine's.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-300}
devices=${2:-}
root=$(mktemp -d /tmp/joulix-idle-XXXXXX)
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$root"' EXIT
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent
if [ -n "$devices" ]; then
  # The daemon's own pid, not umockdev-run's, is the one measured.
  umockdev-run -d "$devices" -- /bin/sh -c 'mkdir -p "$UMOCKDEV_DIR/sys/power/suspend_stats" &&
    echo 12 >"$UMOCKDEV_DIR/sys/power/suspend_stats/success" && echo $$ >"$0/pid" &&
    exec build/daemon/joulix --root "$0"' "$root" 2>/dev/null &
  for _ in $(seq 100); do [ -s "$root/pid" ] && break; sleep 0.1; done
  pid=$(cat "$root/pid")
else
  build/daemon/joulix --root "$root" 2>/dev/null &
  pid=$!
fi
sleep 10
ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
# A thread's voluntary switches are its sleeps, so its wake-ups; involuntary ones are
# the scheduler taking the core from it while it runs.
switches() { cat /proc/"$pid"/task/*/status | awk '/^voluntary_ctxt_switches/ {s += $2} END {print s}'; }
preempted() { cat /proc/"$pid"/task/*/status | awk '/^nonvoluntary_ctxt_switches/ {s += $2} END {print s}'; }
t0=$(ticks); c0=$(switches); p0=$(preempted)
sleep "$seconds"
t1=$(ticks); c1=$(switches); p1=$(preempted)
hz=$(getconf CLK_TCK)
echo "threads: $(ls /proc/$pid/task | wc -l)"
echo "cpu: $((t1 - t0)) ticks of 1/$hz s in $seconds s ($(awk -v t=$((t1 - t0)) -v hz="$hz" -v s="$seconds" 'BEGIN {printf "%.4f", t / hz / s * 100}') % of one core)"
echo "wake-ups (voluntary context switches): $((c1 - c0)) in $seconds s ($(awk -v c=$((c1 - c0)) -v s="$seconds" 'BEGIN {printf "%.2f", c / s}') a second); preempted: $((p1 - p0))"
log="$root/var/mobile/Library/Logs/CurrentJoulix.joulix"
echo "log: $(wc -c <"$log") bytes; entries by tag:"
sed -n 's/^[^[]*\[\([^]]*\)\].*/\1/p' "$log" | sort | uniq -c | sort -rn | head -20
