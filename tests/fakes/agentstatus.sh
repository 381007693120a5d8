#!/bin/bash
# Stands in for an agent program started with a status pipe: writes its first
# argument (the status text, possibly empty) to the write end named after
# "-agentCom r,w", then exits with its second argument.
status=$1 code=${2:-0}
while [ $# -gt 0 ]; do [ "$1" = "-agentCom" ] && fds=$2; shift; done
[ -n "$status" ] && printf '%s' "$status" >&"${fds#*,}"
exit "$code"
