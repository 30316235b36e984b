#!/usr/bin/env bash
# Sets up a fresh machine, builds, and runs every test: the plain build, then the
# whole suite under AddressSanitizer and UndefinedBehaviorSanitizer, then the
# concurrency tests under ThreadSanitizer, and a few seconds of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=$(nproc)
echo "== build and test"
scripts/build.sh build -DJOULIX_BUILD_TESTS=ON -DJOULIX_BUILD_BENCH=ON
ctest --test-dir build --output-on-failure -j "$jobs"

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

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
scripts/build.sh build-asan -DJOULIX_SANITIZE="address;undefined" -DJOULIX_BUILD_TESTS=ON -DJOULIX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

echo "== ThreadSanitizer (queues, writer, run thread, loggers)"
scripts/build.sh build-tsan -DJOULIX_SANITIZE=thread -DJOULIX_BUILD_TESTS=ON -DJOULIX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --test-dir build-tsan --output-on-failure -j "$jobs" -L '^(platform_tests|joulixmain_tests|baseband_tests|logger_tests)$'

echo "== libFuzzer (clang, AddressSanitizer + UndefinedBehaviorSanitizer), ${JOULIX_FUZZ_SECONDS:-5} s per target"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DJOULIX_BUILD_FUZZ=ON -DJOULIX_SANITIZE="address;undefined" \
  -DJOULIX_BUILD_TESTS=OFF -DJOULIX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug \
  -DJOULIX_FUZZ_SECONDS="${JOULIX_FUZZ_SECONDS:-5}" >/dev/null
ninja -C build-fuzz line_reader_fuzz line_matcher_fuzz
ctest --test-dir build-fuzz/fuzz --output-on-failure
