#!/usr/bin/env bash
# Runs each libFuzzer program for a bounded time. Usage: run_fuzzers.sh BUILD_DIR SECONDS TARGET...
# Each target fuzzes a working corpus under BUILD_DIR/fuzz-runs/<target>/, seeded from
# fuzz/corpus/<target>/, so that the repository's corpus only grows when someone merges findings
# on purpose (libFuzzer's -merge=1). Exits non-zero when any target found a failure.
set -uo pipefail
[ $# -ge 3 ] || { echo "usage: $0 BUILD_DIR SECONDS TARGET..." >&2; exit 2; }
build=$(cd "$1" && pwd)
seconds=$2
shift 2
failed=0
for target in "$@"; do
  run=$build/fuzz-runs/$target
  rm -rf "$run/artifacts"
  mkdir -p "$run/corpus" "$run/artifacts"
  cp -n "$(dirname "$0")/corpus/$target/"* "$run/corpus/"
  echo "fuzz: $target for ${seconds}s (log: $run/fuzz.log)"
  # libFuzzer's own limit, and a hard one should it hang outside an input.
  if ! timeout --kill-after=30 $((seconds + 300)) "$build/fuzz/korv_fuzz_$target" -max_total_time="$seconds" \
      -print_final_stats=1 -timeout=20 -rss_limit_mb=2048 -artifact_prefix="$run/artifacts/" "$run/corpus" \
      >"$run/fuzz.log" 2>&1; then
    failed=1
    echo "  FAILED; replay with $build/fuzz/korv_fuzz_replay_$target:" $(find "$run/artifacts" -type f)
  fi
  sed -n 's/^stat::number_of_executed_units: */  executions: /p' "$run/fuzz.log" | tail -n 1
done
echo "New inputs: $build/fuzz-runs/<target>/corpus; merge: korv_fuzz_<target> -merge=1 fuzz/corpus/<target> DIR"
exit $failed
