#!/usr/bin/env bash
# Builds the tests and runs them all with CTest.
#   ./test.sh             normal build in build/
#   PP_CONFIG=asan ./test.sh   AddressSanitizer + UndefinedBehaviorSanitizer in build-asan/
#   PP_CONFIG=tsan ./test.sh   ThreadSanitizer (thread tests only) in build-tsan/
set -euo pipefail
cd "$(dirname "$0")"
./deps.sh test
config=${PP_CONFIG:-normal}
case "$config" in
  normal) dir=build;      flags=() ;;
  asan)   dir=build-asan; flags=(-DPP_SANITIZE=ON -DPP_BUILD_BENCH=OFF) ;;
  tsan)   dir=build-tsan; flags=(-DPP_TSAN=ON -DPP_BUILD_BENCH=OFF) ;;
  *) echo "unknown PP_CONFIG $config" >&2; exit 2 ;;
esac
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${flags[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)"
filter=()
[ "$config" = tsan ] && filter=(-L thread)
# The real-kernel tests boot a VM each; CI runs them on their own once the lab is built.
cd "$dir" && ctest --output-on-failure -j"$(nproc)" -LE kernel "${filter[@]}"
