#!/bin/bash
# Runs inside the lab VM with maps that queue I/O without paths (no_path_retry queue).
cd /host || exit 1
mkdir -p out
step() {
    local name=$1; shift
    "$@" >"out/$name.out" 2>"out/$name.err"
    echo $? >"out/$name.rc"
}
mkdir -p /opt/ZOR/QLX/agent && mount --bind /host/agent /opt/ZOR/QLX/agent
T=/opt/ZOR/QLX/agent/bin/PathPlannerTopology

step table-before dmsetup table
step topology-before "$T"
step switch "$T" --fail-if-no-path
step table-after dmsetup table
step topology-after "$T"
step switch-again "$T" --fail-if-no-path --table
exit 0
