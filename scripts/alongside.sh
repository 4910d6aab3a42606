#!/usr/bin/env bash
# alongside.sh BACKGROUND FOREGROUND: runs both commands at once, BACKGROUND's
# output held back and printed when both have ended; fails if either failed.
# `make test` runs each build's tests alongside the next build's compilation:
# the tests spend much of their time waiting on nginx, FUSE and the library's
# own waits, which leaves the compiler most of the two cores.
set -uo pipefail
log=$(mktemp)
trap 'rm -f "$log"' EXIT
bash -c "$1" >"$log" 2>&1 &
background=$!
bash -c "$2"
foreground=$?
wait "$background"
background_status=$?
echo "---- output of: $1"
cat "$log"
echo "---- end of: $1 (status $background_status)"
[ "$foreground" -eq 0 ] && [ "$background_status" -eq 0 ]
