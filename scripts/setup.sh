#!/usr/bin/env bash
# Installs what joulix needs to build and test, from Debian's packages.
set -euo pipefail

packages=(build-essential cmake ninja-build pkg-config
          libicu-dev zlib1g-dev libsystemd-dev libplist-dev
          libgtest-dev libgmock-dev libbenchmark-dev
          nlohmann-json3-dev systemd procps umockdev
          dbus-daemon dbus-bin faketime
          clang libclang-rt-14-dev chromium)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
