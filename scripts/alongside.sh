#!/usr/bin/env bash
# alongside.sh BACKGROUND FOREGROUND: runs both commands at once, BACKGROUND's
# output held back and printed when both have ended; fails if either failed.
# `make test` runs each build's tests alongside the next build's compilation:
# the tests spend much of their time waiting on nginx, FUSE and the library's
# own waits. The compiler runs at a lower priority, so that the tests' waits
# with time limits get the processor when they need it.
set -uo pipefail
log=$(mktemp)
# Its own process group, so that an interruption stops it with its children
# (nginx, FUSE mounts) instead of leaving them running.
setsid bash -c "$1" >"$log" 2>&1 &
background=$!
trap 'kill -TERM -- -"$background" 2>/dev/null; rm -f "$log"; exit 130' INT TERM
trap 'rm -f "$log"' EXIT
nice -n 10 bash -c "$2"
foreground=$?
wait "$background"
background_status=$?
echo "---- output of: $1"
cat "$log"
echo "---- end of: $1 (status $background_status)"
[ "$foreground" -eq 0 ] && [ "$background_status" -eq 0 ]
