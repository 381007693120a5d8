#!/usr/bin/env bash
# Builds the .deb and .rpm packages into build-package/packages/:
#   pathplanner_<version>_<arch>.deb and pathplanner-<version>.<arch>.rpm
# Extra arguments go to CMake (for example -DCMAKE_CXX_COMPILER_LAUNCHER=ccache).
set -euo pipefail
cd "$(dirname "$0")"
./deps.sh package
# The hardening Debian's own packages get (dpkg-buildflags).
cmake -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DPP_BUILD_TESTS=OFF -DPP_BUILD_BENCH=OFF \
      -DPP_SYSTEM_FILES=ON -DCMAKE_CXX_FLAGS="-D_FORTIFY_SOURCE=2 -fstack-protector-strong" \
      -DCMAKE_EXE_LINKER_FLAGS="-Wl,-z,relro,-z,now" "$@" >/dev/null
cmake --build build-package -j"$(nproc)"
rm -f build-package/packages/*.deb build-package/packages/*.rpm
(cd build-package && cpack >/dev/null)
ls build-package/packages/*.deb build-package/packages/*.rpm
