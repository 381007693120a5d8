#!/usr/bin/env bash
# Builds PathPlanner and installs it under /opt/ZOR/QLX/agent.
set -euo pipefail
cd "$(dirname "$0")"
./deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DPP_BUILD_TESTS=OFF -DPP_BUILD_BENCH=OFF >/dev/null
cmake --build build-release -j"$(nproc)"
cmake --install build-release >/dev/null
echo "installed under $(grep CMAKE_INSTALL_PREFIX: build-release/CMakeCache.txt | cut -d= -f2)"
