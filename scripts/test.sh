#!/usr/bin/env bash
# Sets up a fresh machine, builds, and runs every test: the plain build, then the
# whole suite under AddressSanitizer and UndefinedBehaviorSanitizer, then the
# concurrency tests under ThreadSanitizer, and a few seconds of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=$(nproc)
echo "== build and test"
# Optimised as the release is, without debug information: the sanitizer builds below
# keep it for their reports, and this build is the longest of the run.
scripts/build.sh build -DJOULIX_BUILD_TESTS=ON -DJOULIX_BUILD_BENCH=ON \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG"
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== the trace export of a real log loads as strict JSON"
trace=$(mktemp -d)
build/daemon/joulix --root "$trace" --once 2>/dev/null
build/daemon/joulixctl --root "$trace" export --trace "$trace/trace.json"
# parse_constant: NaN and Infinity are Python's, not JSON's.
python3 -c 'import json,sys; d=json.load(open(sys.argv[1]), parse_constant=lambda c: sys.exit("not JSON: "+c)); assert d["traceEvents"], "no events"' "$trace/trace.json"
rm -rf "$trace"

echo "== plug-in SDK: install to a scratch prefix, build the example against it"
sdk=$(mktemp -d)
trap 'rm -rf "$sdk"' EXIT
cmake --install build --prefix "$sdk/usr" >/dev/null
# shellcheck disable=SC2046
c++ -std=c++20 -shared -fPIC -fvisibility=hidden -Wall -Wextra -Werror plugins/examples/JXLoadAverageLogger.cpp \
  $(PKG_CONFIG_PATH="$sdk/usr/lib/pkgconfig" pkg-config --cflags --libs joulix-plugin) -o "$sdk/JXLoadAverageLogger.bundle"
nm -D --defined-only "$sdk/JXLoadAverageLogger.bundle" | grep ' JXPrincipalClass$' >/dev/null  # not -q: nm must not meet a closed pipe
# The installed daemon, with the scratch directory as its root, loads the installed thermal bundle.
LD_LIBRARY_PATH="$sdk/usr/lib" "$sdk/usr/bin/joulix" --root "$sdk" --once --log-stderr 2>"$sdk/messages"
grep 'setting up bundle logger JXThermalLogger' "$sdk/messages" >/dev/null
if grep 'Could not find JXThermalLogger' "$sdk/messages"; then exit 1; fi
grep ' \[Config\] ' "$sdk/var/mobile/Library/Logs/CurrentJoulix.joulix" >/dev/null

echo "== the installed service: the unit from the install prefix, its hardening, readiness and status"
stage=$(mktemp -d)
trap 'rm -rf "$sdk" "$stage"' EXIT
DESTDIR="$stage" cmake --install build --prefix /usr --strip >/dev/null
unit="$stage/usr/lib/systemd/system/joulix.service"
grep -x 'ExecStart=/usr/bin/joulix' "$unit" >/dev/null
test -f "$stage/usr/lib/sysusers.d/joulix.conf" && test -f "$stage/usr/lib/tmpfiles.d/joulix.conf"
# verify looks for the daemon where the unit says; it is still in the staging root.
mkdir -p "$stage/check" "$stage/etc"
sed "s|^ExecStart=/usr/bin/joulix|ExecStart=$stage/usr/bin/joulix|" "$unit" >"$stage/check/joulix.service"
systemd-analyze verify --man=no "$stage/check/joulix.service"
systemd-analyze security --offline=true --threshold=35 "$unit" | tail -1
# The account, the group and the directories, made in the staging root.
systemd-sysusers --root="$stage" "$stage/usr/lib/sysusers.d/joulix.conf" 2>/dev/null
grep '^mobile:' "$stage/etc/passwd" >/dev/null && grep '^joulix:' "$stage/etc/group" >/dev/null
systemd-tmpfiles --root="$stage" --create "$stage/usr/lib/tmpfiles.d/joulix.conf"
test "$(stat -c %U "$stage/var/mobile/Library/Logs/JXArchive")" != root
# The installed daemon and joulixctl under a private bus with the shipped policy.
JOULIX_BIN_DIR="$sdk/usr/bin" LD_LIBRARY_PATH="$sdk/usr/lib" build/tests/integration_tests --gtest_filter='ServiceTest.*'

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
scripts/build.sh build-asan -DJOULIX_SANITIZE="address;undefined" -DJOULIX_BUILD_TESTS=ON -DJOULIX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

echo "== ThreadSanitizer (queues, writer, run thread, loggers)"
# Only the test programs it runs: the daemon, the tools and their black-box tests are
# built and run under the other two.
cmake -S . -B build-tsan -G Ninja -DJOULIX_SANITIZE=thread -DJOULIX_BUILD_TESTS=ON -DJOULIX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug >/dev/null
ninja -C build-tsan platform_tests joulixmain_tests baseband_tests logger_tests
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --test-dir build-tsan --output-on-failure -j "$jobs" -L '^(platform_tests|joulixmain_tests|baseband_tests|logger_tests)$'

echo "== libFuzzer (clang, AddressSanitizer + UndefinedBehaviorSanitizer), ${JOULIX_FUZZ_SECONDS:-5} s per target"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DJOULIX_BUILD_FUZZ=ON -DJOULIX_SANITIZE="address;undefined" \
  -DJOULIX_BUILD_TESTS=OFF -DJOULIX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug \
  -DJOULIX_FUZZ_SECONDS="${JOULIX_FUZZ_SECONDS:-5}" >/dev/null
ninja -C build-fuzz line_reader_fuzz line_matcher_fuzz
ctest --test-dir build-fuzz/fuzz --output-on-failure
