#!/bin/bash
# The collection on the lab's real kernel: ansible-playbook runs inside the lab VM
# (connection local) with this host's Python and ansible-core shared in, against the
# installed tools and real multipathd, over a small Fibre Channel tree naming the two
# scsi_debug hosts' ports. Then the example drain-and-restore playbook runs there.
#   lab.sh <installed agent dir>
# Exit 77 (skipped) with the reason when the lab or the tools it needs are missing.
set -euo pipefail
agent=$1
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
lab=${PP_LAB_DIR:-$src/../shared/lab}
LABCACHE=${LABCACHE:-/var/cache/pathplanner-lab}
skip() { echo "SKIP: $*"; exit 77; }
[ -x "$lab/vm-run.sh" ] || skip "no lab scripts at $lab"
[ -f "$LABCACHE/lab.env" ] || skip "the lab is not built ($LABCACHE/lab.env missing; see $lab/README.md)"
[ "$(id -u)" = 0 ] || skip "the lab needs root"
grep -q -- '--offline' "$agent/bin/PathPlannerTopology" || skip "this PathPlannerTopology cannot take paths offline by WWPN"
[ -x /usr/bin/ansible-playbook ] || skip "ansible-core is not installed"

share=$(mktemp -d /var/tmp/pp-ansible-lab.XXXXXX)
trap 'rm -rf "$share"' EXIT
# The VM's minimal root has no Python: this host's (same Debian release) is shared in
# with the two libraries the VM lacks.
mkdir -p "$share/py/bin" "$share/py/lib" "$share/py/site" "$share/collections"
cp /usr/bin/python3.11 "$share/py/bin/python3"
cp -r /usr/lib/python3.11 "$share/py/lib/"
rm -rf "$share"/py/lib/python3.11/{test,idlelib,tkinter,ensurepip}
for lib in libexpat.so.1 libyaml-0.so.2; do cp -L "/usr/lib/x86_64-linux-gnu/$lib" "$share/py/lib/" 2>/dev/null || true; done
for pkg in ansible jinja2 markupsafe yaml _yaml packaging resolvelib \
           ansible_core-*-info Jinja2-*-info MarkupSafe-*-info PyYAML-*-info packaging-*-info resolvelib-*-info; do
  cp -r /usr/lib/python3/dist-packages/$pkg "$share/py/site/"
done
cp /usr/bin/ansible-playbook "$share/py/ansible-playbook"
cp -r "$src/contrib/ansible/ansible_collections" "$share/collections/"
cp -r "$agent" "$share/agent"
rm -rf "$share/agent/log" && mkdir "$share/agent/log"
cp "$here/playbooks/lab.yml" "$share/"

cat >"$share/guest.sh" <<'GUEST'
set -eu
H=/host
mkdir -p /opt/ZOR/QLX && ln -sfn $H/agent /opt/ZOR/QLX/agent
# Adapter ports 10000000c95a3b10 and ...11 for the two scsi_debug hosts.
mount -t tmpfs pp-fc /sys/class/fc_host
n=0
for h in /sys/class/scsi_host/host*; do
  [ "$(cat "$h/proc_name")" = scsi_debug ] || continue
  mkdir "/sys/class/fc_host/${h##*/}"
  printf '0x10000000c95a3b1%d\n' $n >"/sys/class/fc_host/${h##*/}/port_name"
  n=$((n + 1))
done
export LD_LIBRARY_PATH=$H/py/lib PYTHONHOME=$H/py PYTHONPATH=$H/py/site PYTHONDONTWRITEBYTECODE=1
export ANSIBLE_COLLECTIONS_PATH=$H/collections ANSIBLE_HOME=/tmp/ansible ANSIBLE_LOCAL_TEMP=/tmp/ansible/tmp
export ANSIBLE_NOCOLOR=1 ANSIBLE_FORCE_COLOR=0 LC_ALL=C.UTF-8 LANG=C.UTF-8
play() { $H/py/bin/python3 $H/py/ansible-playbook -i localhost, -c local -e ansible_python_interpreter=$H/py/bin/python3 "$@"; }
play $H/lab.yml
GUEST

# Under TCG a module task takes 10 to 30 s and a rescan waits 60 s for the system to
# settle, so the lab runs only the checks that need a real kernel (drain, guard, restore
# and the agent's state request); the example playbook, rescan included, runs end to end
# in the namespace harness.
# The agent finds the device-mapper driver through rpm, whose database the VM has empty;
# the rescan script needs /proc/scsi, which only the lab's own scsi_mod provides.
LAB_RPM_PKGS=device-mapper-multipath-0.9.4-1.lab LAB_PROC_SCSI=1 LAB_FC=1 LAB_TIMEOUT=${LAB_TIMEOUT:-1300} "$lab/vm-run.sh" -s "$share" bash /host/guest.sh
