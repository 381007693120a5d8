#!/bin/bash
# One kernel test: installs the build into a shared folder, boots the lab VM once
# with the scenario's settings, runs tests/kernel/guest-SCENARIO.sh there and judges
# its outputs with check-lab.py. Exit 77 (a CTest skip) when the lab is not built.
#   run-lab-test.sh SCENARIO BUILD_DIR
set -uo pipefail
scenario=$1 build=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# The lab lives beside the repository, in the shared folder every checkout has next to it.
lab=${PP_LAB_DIR:-$(cd "$here/../../.." && pwd)/shared/lab}
export LABCACHE=${LABCACHE:-/var/cache/pathplanner-lab}

if [ ! -f "$LABCACHE/lab.env" ] || [ ! -f "$LABCACHE/rootfs.img" ]; then
    echo "SKIP: the lab is not built ($LABCACHE/lab.env missing; run $lab/build-lab.sh as root)"
    exit 77
fi
if ! command -v qemu-system-x86_64 >/dev/null; then
    echo "SKIP: qemu-system-x86_64 is not installed, so the lab cannot boot"
    exit 77
fi

share=$(mktemp -d /tmp/pp-kernel-XXXXXX)
trap 'rm -rf "$share"' EXIT
cmake --install "$build" --prefix "$share/agent" >/dev/null || { echo "FAIL: cmake --install"; exit 1; }
mkdir -p "$share/agent/log"
cp "$here/guest-lib.sh" "$here/guest-$scenario.sh" "$share/"

# The tool finds the device-mapper driver through the rpm database.
export LAB_RPM_PKGS=device-mapper-multipath-0.9.4-1.lab
export LAB_TIMEOUT=${LAB_TIMEOUT:-240}
case $scenario in
    path-switch) export LAB_FC=1 ;;
    queueing) export LAB_MPCONF=$lab/guest/multipath-queue.conf ;;
esac
"$lab/vm-run.sh" -s "$share" bash "guest-$scenario.sh"
status=$?
if [ $status -ne 0 ]; then
    echo "FAIL: the lab run ended with status $status"
    exit 1
fi
python3 "$here/check-lab.py" "$scenario" "$share/out" "$here/../../schema"
