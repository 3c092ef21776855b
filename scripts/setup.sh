#!/usr/bin/env bash
# Installs what the build needs on a Debian machine, if it is missing:
# compiler, CMake, Ninja, Boost headers, GoogleTest/GoogleMock, Google
# Benchmark. Safe to run again; it installs nothing that is there.
set -euo pipefail

packages=(g++ gcc cmake ninja-build pkg-config libboost-dev libgtest-dev libgmock-dev libbenchmark-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null 2>&1 || { echo "setup: need root or sudo to install ${missing[*]}" >&2; exit 1; }
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
