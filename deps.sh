#!/usr/bin/env bash
# Installs the Debian packages one job needs (idempotent):
#   ./deps.sh build     compiler, CMake and gencat: what building and installing need
#   ./deps.sh package   build, plus rpmbuild and dpkg-shlibdeps for the .rpm and .deb
#   ./deps.sh test      package, plus the test tools (GoogleTest, faketime, lintian, ...)
#   ./deps.sh fuzz      test, plus clang and its fuzzing runtime
#   ./deps.sh bench     test, plus hyperfine for bench/ratios.sh's start-up timings
# Nothing here changes how the host runs its storage: the tests drive fake multipath
# tools in a private mount namespace, so multipath-tools is never installed.
set -euo pipefail
build=(cmake g++ make libc-dev-bin)
package=("${build[@]}" rpm dpkg-dev)
# man-db and mandoc check the man pages, lintian the .deb, logrotate the rule's syntax,
# python3 the JSON the topology command prints, ansible-core (with git for its sanity
# test) the collection; the harness needs procps, unshare
# (util-linux) and script (bsdutils) for a terminal.
test=("${package[@]}" libgtest-dev libgmock-dev libbenchmark-dev faketime python3 python3-jsonschema procps util-linux bsdutils
      lintian mandoc man-db logrotate bash-completion ansible-core git)
fuzz=("${test[@]}" clang libclang-rt-14-dev)
bench=("${test[@]}" hyperfine)
case "${1:-}" in
  build) packages=("${build[@]}") ;;
  package) packages=("${package[@]}") ;;
  test) packages=("${test[@]}") ;;
  fuzz) packages=("${fuzz[@]}") ;;
  bench) packages=("${bench[@]}") ;;
  *) echo "usage: $0 build|package|test|fuzz|bench" >&2; exit 2 ;;
esac
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
