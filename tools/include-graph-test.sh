#!/usr/bin/env bash
# Checks tools/include-graph on small trees: a cycle through a private source is found and
# named, a layered tree is printed by layer, and files join the right module.
set -euo pipefail
tool="$(cd "$(dirname "$0")" && pwd)/include-graph"
tree="$(mktemp -d)"
trap 'rm -rf "$tree"' EXIT
fail() { echo "include-graph-test: $*" >&2; exit 1; }

mkdir -p "$tree/x/ut" "$tree/x/nls"
printf '#include "x/ut/base.h"\n' >"$tree/x/ut/trace.h"
printf '#include "x/ut/trace.h"\n' >"$tree/x/ut/trace.cpp"
: >"$tree/x/ut/base.h"
# trwrite.cpp has no header: it belongs to trace, the module it includes sharing "tr".
printf '#include "x/ut/base.h"\n#include "x/ut/trace.h"\n' >"$tree/x/ut/trwrite.cpp"
printf '#include "x/ut/trace.h"\n#include <vector>\n#include "elsewhere/out.h"\n' >"$tree/x/nls/msg.h"
: >"$tree/x/nls/msg.cpp"
out="$(cd "$tree" && "$tool" x)" || fail "a layered tree was refused: $out"
expected=$'layer 0  ut/base\nlayer 1  ut/trace -> ut/base\nlayer 2  nls/msg -> ut/trace'
[ "$out" = "$expected" ] || fail "unexpected layers:"$'\n'"$out"

printf '#include "x/nls/msg.h"\n' >>"$tree/x/ut/trwrite.cpp"
set +e
out="$(cd "$tree" && "$tool" x)"
rc=$?
set -e
[ "$rc" -eq 1 ] || fail "a cycle gave exit status $rc"
grep -qx 'cycle of 2 modules: nls/msg ut/trace' <<<"$out" || fail "cycle not named:"$'\n'"$out"
grep -qx '  ut/trace -> nls/msg' <<<"$out" || fail "cycle edge not shown:"$'\n'"$out"

set +e
"$tool" "$tree/none" >/dev/null 2>&1
rc=$?
set -e
[ "$rc" -eq 2 ] || fail "a missing directory gave exit status $rc"
echo "include-graph-test: ok"
