#!/usr/bin/env bash
# Installs the Debian packages that building and testing need (idempotent).
set -euo pipefail
packages=(cmake g++ make libc-dev-bin libgtest-dev libgmock-dev libbenchmark-dev libc-bin util-linux
          faketime rpm multipath-tools dmsetup clang libclang-rt-14-dev python3 procps
          ansible-core git)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
