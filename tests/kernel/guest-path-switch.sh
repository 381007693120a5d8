#!/bin/bash
# Runs inside the lab VM (LAB_FC=1, two scsi_debug hosts, multipathd running).
. /host/guest-lib.sh
# No Fibre Channel here: give the two scsi_debug hosts (host0, host1) a port each.
mount -t tmpfs pp-fc /sys/class/fc_host
for n in 0 1; do
    mkdir /sys/class/fc_host/host$n
    echo "0x21000024ff00aa0$n" >/sys/class/fc_host/host$n/port_name
done

# multipathd updates its own view of a path once the kernel's event for the command has
# reached it, which takes a few seconds on a loaded VM; the kernel's state, which the
# tool checks, is already there. Wait (20 s at most) until the paths of the SCSI
# addresses starting with $1 show dm state $2.
await_paths() {
    for _ in $(seq 40); do
        multipathd show paths format "%i %t" |
            awk -v h="$1" -v s="$2" 'index($1, h) == 1 && $2 != s { bad = 1 } END { exit bad }' && return 0
        sleep 0.5
    done
}

step version "$T" --version
step ll multipath -ll -v2
step showmaps multipathd show maps json
step topology "$T"
step paths-before multipathd show paths
step offline "$T" --offline 21:00:00:24:FF:00:AA:00
await_paths 0: failed
step paths-offline multipathd show paths
# host1 now carries the last usable path of every map.
step refusal "$T" --offline 0x21000024ff00aa01
step paths-refused multipathd show paths
step topology-offline "$T"
# The path checker runs every 5 s: the failed paths must stay failed past it.
sleep 7
step paths-later multipathd show paths
step online "$T" --online 21000024ff00aa00 --table
await_paths 0: active
step paths-after multipathd show paths
cp /opt/ZOR/QLX/agent/log/multipath.log out/activity.log 2>/dev/null
exit 0
