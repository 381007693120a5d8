#!/usr/bin/env bash
# Fuzzes the device-mapper topology parser with libFuzzer for a bounded time.
#   ./fuzz.sh [seconds]    (default 60)
set -euo pipefail
cd "$(dirname "$0")"
./deps.sh fuzz
seconds=${1:-60}
cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DPP_FUZZ=ON -DPP_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target DMTopologyFuzz
mkdir -p build-fuzz/corpus
build-fuzz/tests/fuzz/DMTopologyFuzz -max_total_time="$seconds" -dict=tests/fuzz/dm-topology.dict \
    build-fuzz/corpus tests/Multipath/linux/data
