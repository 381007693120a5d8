#!/bin/sh
# Static checks of the zor.pathplanner collection with Debian's ansible-core:
# every ansible-test sanity test that runs offline (compiling every Python file
# among them), then two of those that need a virtual environment from the network
# in a plainer form: ansible-doc renders each module's documentation, the
# playbooks parse.
set -eu
src=$(cd "$(dirname "$0")/../../contrib/ansible" && pwd)
collection=$src/ansible_collections/zor/pathplanner
py=/usr/bin/python3
for tool in ansible-test ansible-doc ansible-playbook git; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed (apt-get install ansible-core git)"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# ansible-test wants the collection at ansible_collections/<ns>/<name> inside a
# git tree; a copy keeps its output and any uncommitted file out of the checkout.
mkdir -p "$work/ansible_collections/zor"
cp -r "$collection" "$work/ansible_collections/zor/pathplanner"
(
  cd "$work/ansible_collections/zor/pathplanner"
  git init -q . && git add -A
  ansible-test sanity --local --python "$($py -c 'import sys; print("%d.%d" % sys.version_info[:2])')" \
    --skip-test ansible-doc --skip-test import --skip-test pep8 --skip-test pylint \
    --skip-test runtime-metadata --skip-test validate-modules --skip-test yamllint
)

export ANSIBLE_COLLECTIONS_PATH="$src" ANSIBLE_HOME="$work/home" ANSIBLE_LOCAL_TEMP="$work/tmp"
for module in pathplanner pathplanner_topology; do
  ansible-doc "zor.pathplanner.$module" >/dev/null
done
for playbook in "$collection"/playbooks/*.yml; do
  ansible-playbook --syntax-check -i localhost, "$playbook" >/dev/null
done
# The collection carries the product's version, whose one source is CMake.
product=$(sed -n 's/^project(PathPlanner VERSION \([0-9]*\.[0-9]*\.[0-9]*\).*/\1/p' "$src/../../CMakeLists.txt")
grep -qx "version: $product" "$collection/galaxy.yml" || { echo "galaxy.yml version is not $product" >&2; exit 1; }
echo "sanity: ok"
