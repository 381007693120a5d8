#!/usr/bin/env bash
# Builds the .deb and .rpm, checks them (lintian; rpm's file list and requirements;
# the .rpm installed and erased in a throwaway rpm root), then installs the .deb with
# dpkg, runs the tool from it, removes it (the logs stay) and purges it (the logs go).
#   tests/packaging/check-packages.sh [--sandbox] [CMake arguments for package.sh]
# As root. Without --sandbox the .deb is installed on this machine (CI's case). With
# --sandbox dpkg works in a private mount namespace on a copy of its database, with
# empty /opt, /etc/logrotate.d, man, doc and completion directories, so a shared
# machine keeps its own state.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD

fail() { echo "FAIL: $*" >&2; exit 1; }
expect_line() {  # expect_line <what> <text> <line>
  grep -qxF -- "$3" <<<"$2" || fail "$1 lacks '$3'"
}

# The install, remove and purge cycle, run where dpkg may change things.
dpkg_cycle() {
  local deb=$1 agent=/opt/ZOR/QLX/agent
  echo "== dpkg -i $(basename "$deb")"
  dpkg --log=/dev/null -i "$deb"
  [ "$("$agent/bin/PathPlanner" -version)" = "$version" ] || fail "PathPlanner -version"
  for page in PathPlanner PathPlannerTopology; do
    [ "$(man -w $page)" = /usr/share/man/man8/$page.8.gz ] || fail "man -w $page: $(man -w $page)"
  done
  logrotate -d /etc/logrotate.d/pathplanner >/dev/null 2>&1 || fail "logrotate rejects its rule"
  bash -c '. /usr/share/bash-completion/bash_completion
           . /usr/share/bash-completion/completions/PathPlanner
           complete -p PathPlanner' >/dev/null || fail "bash completion for PathPlanner"
  # A request that stops at validation writes the activity log and touches nothing else.
  "$agent/bin/PathPlanner" -multipath 9 2>/dev/null && fail "setting 9 accepted"
  [ -s "$agent/log/multipath.log" ] || fail "no activity log written"

  echo "== dpkg -r pathplanner"
  dpkg --log=/dev/null -r pathplanner
  [ ! -e "$agent/bin/PathPlanner" ] || fail "bin/PathPlanner left after remove"
  [ -s "$agent/log/multipath.log" ] || fail "activity log gone after remove"
  [ -e /etc/logrotate.d/pathplanner ] || fail "logrotate rule (a conffile) gone after remove"

  echo "== dpkg -P pathplanner"
  dpkg --log=/dev/null -P pathplanner
  [ ! -e "$agent/log" ] || fail "log/ left after purge"
  [ ! -e /etc/logrotate.d/pathplanner ] || fail "logrotate rule left after purge"
}

# Runs dpkg_cycle in a private mount namespace (see the header).
sandboxed_cycle() {
  local work
  work=$(mktemp -d)
  trap 'rm -rf "$work"' RETURN
  cp -a /var/lib/dpkg "$work/dpkg"
  unshare -m --propagation private bash -c '
    set -e
    mount --bind "$1/dpkg" /var/lib/dpkg
    for dir in /opt /etc/logrotate.d /usr/share/man/man8 /usr/share/doc /var/cache/man \
               /usr/share/bash-completion/completions; do
      mount -t tmpfs pp-package "$dir"
    done
    shift
    exec "$@"' sandbox "$work" "$0" --cycle "$deb"
}

version=$(sed -n 's/^project(PathPlanner VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
if [ "${1:-}" = --cycle ]; then
  dpkg_cycle "$2"
  exit 0
fi
sandbox=no
if [ "${1:-}" = --sandbox ]; then sandbox=yes; shift; fi

./deps.sh test
./package.sh "$@"
dir=$root/build-package/packages
deb=$dir/pathplanner_${version}_$(dpkg --print-architecture).deb
rpm=$dir/pathplanner-${version}.$(uname -m).rpm
[ -f "$deb" ] || fail "no $deb"
[ -f "$rpm" ] || fail "no $rpm"

echo "== lintian $(basename "$deb")"
lintian --fail-on error --display-level '>=info' "$deb" || fail "lintian reports errors"

echo "== rpm -qpl / -qpR $(basename "$rpm")"
files=$(rpm -qpl "$rpm")
for f in /opt/ZOR/QLX/agent/bin/PathPlanner /opt/ZOR/QLX/agent/bin/PathPlannerTopology \
         /opt/ZOR/QLX/agent/log /opt/ZOR/QLX/agent/nls/en_US/qlxna.cat /opt/ZOR/QLX/agent/nls/de_DE/qlxna.cat \
         /usr/share/man/man8/PathPlanner.8.gz /usr/share/man/man8/PathPlannerTopology.8.gz \
         /etc/logrotate.d/pathplanner /usr/share/bash-completion/completions/PathPlanner \
         /usr/share/bash-completion/completions/PathPlannerTopology; do
  expect_line "rpm -qpl" "$files" "$f"
done
# Directories the system owns must not be claimed by the package.
for f in /opt /etc /etc/logrotate.d /usr/share/man/man8 /usr/share/bash-completion/completions; do
  grep -qxF -- "$f" <<<"$files" && fail "rpm -qpl claims $f"
done
requires=$(rpm -qpR "$rpm")
for r in bash coreutils diffutils grep /usr/bin/awk sed rpm; do
  expect_line "rpm -qpR" "$requires" "$r"
done
grep -q '^libc.so.6' <<<"$requires" || fail "rpm -qpR lacks the C library"
# Read the list whole: grep -q leaving a pipe early fails the pipeline under pipefail.
configs=$(rpm -qp --configfiles "$rpm")
grep -qxF /etc/logrotate.d/pathplanner <<<"$configs" || fail "logrotate rule not a config file"
rpm -K --nosignature "$rpm" >/dev/null || fail "rpm digests"

# The payload unpacks and erases in a throwaway rpm root; this host's rpm database
# knows none of the requirements, hence --nodeps. Erasing keeps the logs.
rpmroot=$(mktemp -d)
trap 'rm -rf "$rpmroot"' EXIT
rpm --root "$rpmroot" --initdb
rpm --root "$rpmroot" --nodeps -i "$rpm" 2>/dev/null
[ -x "$rpmroot/opt/ZOR/QLX/agent/bin/PathPlanner" ] || fail "rpm -i did not unpack PathPlanner"
echo "AGT0430I" > "$rpmroot/opt/ZOR/QLX/agent/log/multipath.log"
rpm --root "$rpmroot" -e pathplanner 2>/dev/null
[ ! -e "$rpmroot/opt/ZOR/QLX/agent/bin/PathPlanner" ] || fail "rpm -e left bin/PathPlanner"
[ -s "$rpmroot/opt/ZOR/QLX/agent/log/multipath.log" ] || fail "rpm -e removed the logs"

if [ "$sandbox" = yes ]; then
  sandboxed_cycle
else
  dpkg_cycle "$deb"
fi
echo "packages: all checks passed"
