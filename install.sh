#!/usr/bin/env bash
# Builds PathPlanner from source and installs it under /opt/ZOR/QLX/agent, with its
# man pages, bash completion and logrotate rule at the system's paths. Installs only
# what building needs; build-release/install_manifest.txt lists every file installed.
set -euo pipefail
cd "$(dirname "$0")"
./deps.sh build
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DPP_BUILD_TESTS=OFF -DPP_BUILD_BENCH=OFF \
      -DPP_SYSTEM_FILES=ON >/dev/null
cmake --build build-release -j"$(nproc)"
cmake --install build-release >/dev/null
echo "installed under $(grep CMAKE_INSTALL_PREFIX: build-release/CMakeCache.txt | cut -d= -f2)"
