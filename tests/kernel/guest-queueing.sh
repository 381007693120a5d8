#!/bin/bash
# Runs inside the lab VM with maps that queue I/O without paths (no_path_retry queue).
. /host/guest-lib.sh

step table-before dmsetup table
step topology-before "$T"
step switch "$T" --fail-if-no-path
step table-after dmsetup table
step topology-after "$T"
step switch-again "$T" --fail-if-no-path --table
exit 0
