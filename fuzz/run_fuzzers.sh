#!/usr/bin/env bash
# Runs each libFuzzer program for a bounded time and reports the executions
# it did. Usage: run_fuzzers.sh BUILD_DIR SECONDS TARGET...
#
# Each target fuzzes a working corpus under BUILD_DIR/fuzz-runs/<target>/,
# seeded from fuzz/corpus/<target>/ and kept between runs, so that the
# repository's corpus only grows when someone merges findings on purpose.
# Exits non-zero when any target found a failure.
set -uo pipefail

[ $# -ge 3 ] || { echo "usage: $0 BUILD_DIR SECONDS TARGET..." >&2; exit 2; }
build=$(cd "$1" && pwd)
seconds=$2
shift 2
source_dir=$(cd "$(dirname "$0")" && pwd)
failed=0
for target in "$@"; do
  run=$build/fuzz-runs/$target
  # Artifacts are this run's only: those of an earlier run are dropped.
  rm -rf "$run/artifacts"
  mkdir -p "$run/corpus" "$run/artifacts"
  cp -n "$source_dir/corpus/$target/"* "$run/corpus/"
  echo "fuzz: $target for ${seconds}s (log: $run/fuzz.log)"
  # Bounded twice: libFuzzer's own limit, and a hard one should it hang
  # outside an input. -timeout: an input running longer is reported as a hang.
  if timeout --kill-after=30 $((seconds + 300)) "$build/fuzz/korv_fuzz_$target" -max_total_time="$seconds" \
      -print_final_stats=1 -timeout=20 -rss_limit_mb=2048 -artifact_prefix="$run/artifacts/" "$run/corpus" \
      >"$run/fuzz.log" 2>&1; then
    echo "  ok: $(sed -n 's/^stat::number_of_executed_units: *//p' "$run/fuzz.log" | tail -n 1) executions"
  else
    failed=1
    echo "  FAILED; artifacts:" $(find "$run/artifacts" -type f | sort)
    echo "  replay one: $build/fuzz/korv_fuzz_replay_$target ARTIFACT (KORV_FUZZ_TRACE=1 traces the read path)"
    echo "  shrink it:  $build/fuzz/korv_fuzz_$target -minimize_crash=1 -max_total_time=60 ARTIFACT"
  fi
done
echo "New inputs stay in $build/fuzz-runs/<target>/corpus. To add those that bring new coverage to the"
echo "repository's corpus (review them first; keep it small):"
echo "  $build/fuzz/korv_fuzz_<target> -merge=1 $source_dir/corpus/<target> $build/fuzz-runs/<target>/corpus"
exit $failed
