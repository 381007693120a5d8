#!/usr/bin/env bash
# Fuzzes every reader of outside or on-disk text with libFuzzer, each for a bounded time.
#   ./fuzz.sh [seconds per target] [target...]    (default 24 s, all targets)
# Corpora grow in build-fuzz/corpus/<target>; seeds come from tests/fuzz/seeds.sh.
set -euo pipefail
cd "$(dirname "$0")"
./deps.sh fuzz
seconds=${1:-24}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(DMTopologyFuzz ZplQueryFuzz CmdLineFuzz MessageFuzz TraceReopenFuzz)
cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DPP_FUZZ=ON -DPP_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target catalogs "${targets[@]}"
rm -rf build-fuzz/seeds
# A run that ended on a crash or timeout skipped its clean-up; its scratch folder in
# memory-backed /dev/shm would hold on to memory until the next boot. A running
# target touches its folder with every input, so only idle folders go.
find /dev/shm -maxdepth 1 -name 'pp-reopen-fuzz-*' -mmin +10 -exec rm -rf {} +
tests/fuzz/seeds.sh build-fuzz/seeds build-fuzz/messages/en_US
for target in "${targets[@]}"; do
    dict=()
    [ "$target" != DMTopologyFuzz ] || dict=(-dict=tests/fuzz/dm-topology.dict)
    mkdir -p "build-fuzz/corpus/$target"
    echo "== $target: ${seconds} s"
    "build-fuzz/tests/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="build-fuzz/$target-" \
        "${dict[@]}" "build-fuzz/corpus/$target" "build-fuzz/seeds/$target"
done
