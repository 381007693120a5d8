#!/usr/bin/env bash
# Every man page renders without a message from mandoc's linter, groff or man.
#   tests/packaging/check-man-pages.sh man/*.8
set -uo pipefail
status=0
for page in "$@"; do
  said=$( { mandoc -T lint -W style "$page"; groff -ww -man -z "$page"; MANWIDTH=80 man --warnings -l "$page" >/dev/null; } 2>&1)
  if [ -n "$said" ]; then
    echo "$page:"; echo "$said"; status=1
  fi
done
exit $status
