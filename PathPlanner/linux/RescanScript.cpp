// The bus-rescan script that WalkTheBusLinux writes to /tmp and runs with bash.
#include "PathPlanner/linux/WalkTheBusLinux.h"

// 2.6 kernels are asked to scan through sysfs; 2.4 kernels have no scan file, so
// every host, bus, target and LUN is offered to /proc/scsi/scsi in turn. Both wait
// 10 seconds between passes and stop after four passes or at the first new LUN.
const char kRescanScript[] = R"RESCAN(#!/bin/bash
# Rescan the SCSI/Fibre Channel bus for new LUNs on Linux

if [ ! -d /proc/scsi/ ]; then
    echo "Error: SCSI subsystem not active"
    exit 1
fi

if [ -d /sys/class/scsi_host ]; then
    # 2.6 kernel: every host adapter rescans itself when "- - -" (all channels,
    # targets and LUNs) is written to its scan file.
    retry=0
    hostList=""
    set -- /sys/class/scsi_host/host*
    if [ ! -e "$1" ] && [ ! -L "$1" ]; then
        echo "No SCSI host adapters found in /sys"
        exit 1
    fi
    for hostDir in "$@"; do
        host=${hostDir#/sys/class/scsi_host/host}
        procName=$(cat "$hostDir/proc_name" 2>/dev/null)
        hostList="$hostList $host"
    done

    while [ $retry -le 3 ]; do
        timestamp=$(date '+%s')
        snapshot="/tmp/scsi$timestamp"
        # conv=excl creates the copy with O_EXCL: a name someone else holds
        # (file, link, FIFO) is never written through, opened or removed; the
        # pass compares with a copy in the shell instead.
        if dd if=/proc/scsi/scsi of="$snapshot" conv=excl 2>/dev/null; then
            before=""
        else
            snapshot=""
            before=$(cat /proc/scsi/scsi)
        fi
        for host in $hostList; do
            # A loop initialisation makes a Fibre Channel fabric present its LUNs again.
            if [ -f "/sys/class/fc_host/host$host/issue_lip" ]; then
                echo "1" > "/sys/class/fc_host/host$host/issue_lip"
            fi
            echo "- - -" > "/sys/class/scsi_host/host$host/scan"
        done
        # Status 1: the listing changed, a new LUN shows up.
        if [ -n "$snapshot" ]; then
            diff "$snapshot" /proc/scsi/scsi > /dev/null 2>&1
            changed=$?
        else
            [ "$before" = "$(cat /proc/scsi/scsi)" ]
            changed=$?
        fi
        if [ $changed -eq 1 ]; then
            retry=4
        else
            retry=$((retry + 1))
            if [ $retry -le 3 ]; then
                sleep 10
            fi
        fi
        if [ -n "$snapshot" ]; then
            rm -f "$snapshot"
        fi
    done
else
    # 2.4 kernel: no scan file, so each address is offered to the SCSI midlayer.
    busList="0 1"
    targetList="seq 0 15"
    lunList="seq 0 7"
    found=0
    retry=0
    hostList=""
    for driverDir in /proc/scsi/*; do
        driver=${driverDir#/proc/scsi/}
        case "$driver" in
            scsi|sg|dummy|device_info) continue ;;
        esac
        for entry in /proc/scsi/$driver/*; do
            [ -e "$entry" ] || continue
            name=${entry#/proc/scsi/*/}
            case "$name" in
                add_map|map|mod_parm) continue ;;
            esac
            host=$name
            if [ -r "$entry/status" ]; then
                number=$(sed -n 's/.*SCSI host number:[[:blank:]]*\([0-9][0-9]*\).*/\1/p' "$entry/status" | head -n 1)
                host=$(printf '%d' "$number")
            fi
            hostList="$hostList $host"
        done
    done

    while [ $retry -le 3 ]; do
        for host in $hostList; do
            for bus in $busList; do
                for target in $($targetList); do
                    for lun in $($lunList); do
                        devId="$host $bus $target $lun"
                        pattern="scsi$host Channel: 0*$bus Id: 0*$target Lun: 0*$lun"
                        if ! grep -q "$pattern" /proc/scsi/scsi; then
                            echo "scsi add-single-device $devId" > /proc/scsi/scsi
                            new=$(grep "$pattern" /proc/scsi/scsi)
                            if [ -n "$new" ]; then
                                echo "Found new device: $new"
                                found=$((found + 1))
                            elif [ $lun -eq 0 ]; then
                                # Nothing answers at LUN 0: the target is not there.
                                break
                            fi
                        fi
                    done
                done
            done
        done
        # found is never reset: a new LUN in any pass ends the loop.
        echo "Found $found device(s)."
        if [ $found -ne 0 ]; then
            retry=4
        else
            retry=$((retry + 1))
            if [ $retry -le 3 ]; then
                sleep 10
            fi
        fi
    done
fi
exit 0
)RESCAN";
