#!/usr/bin/env bash
# Runs each libFuzzer program for a bounded time and reports the executions
# it did. Usage: run_fuzzers.sh BUILD_DIR SECONDS TARGET...
#
# Each target fuzzes a working corpus under BUILD_DIR/fuzz-runs/<target>/,
# seeded from fuzz/corpus/<target>/ and kept between runs, so that the
# repository's corpus only grows when someone merges findings on purpose.
# Exits non-zero when any target found a failure.
set -uo pipefail

if [ $# -lt 3 ]; then
  echo "usage: $0 BUILD_DIR SECONDS TARGET..." >&2
  exit 2
fi
build=$(cd "$1" && pwd)
seconds=$2
shift 2
source_dir=$(cd "$(dirname "$0")" && pwd)
runs=$build/fuzz-runs

summary=()
failures=()
for target in "$@"; do
  program=$build/fuzz/korv_fuzz_$target
  corpus=$runs/$target/corpus
  artifacts=$runs/$target/artifacts
  log=$runs/$target/fuzz.log
  # Artifacts are this run's only: those of an earlier run are dropped.
  rm -rf "$artifacts"
  mkdir -p "$corpus" "$artifacts"
  cp -n "$source_dir/corpus/$target/"* "$corpus/"
  before=$(find "$corpus" -type f | wc -l)
  echo "fuzz: $target for ${seconds}s (log: $log)"
  # Bounded twice: libFuzzer's own limit, and a hard one should it hang
  # outside an input. -timeout: an input running longer is reported as a hang.
  timeout --kill-after=30 $((seconds + 300)) "$program" \
    -max_total_time="$seconds" -print_final_stats=1 -timeout=20 -rss_limit_mb=2048 \
    -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1
  status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  speed=$(sed -n 's/.*exec\/s: \([0-9]*\).*/\1/p' "$log" | tail -n 1)
  after=$(find "$corpus" -type f | wc -l)
  result=ok
  if [ "$status" -ne 0 ]; then
    result="FAILED (exit $status)"
    failures+=("$target")
  fi
  summary+=("$(printf '%-10s %12s executions %8s exec/s %6s new inputs   %s' \
    "$target" "${executions:-?}" "${speed:-?}" "$((after - before))" "$result")")
done

echo
echo "fuzz: ${seconds}s per target"
printf '  %s\n' "${summary[@]}"
echo
echo "New inputs stay in $runs/<target>/corpus. To add those that bring new"
echo "coverage to the repository's corpus (review them first; keep it small):"
echo "  $build/fuzz/korv_fuzz_<target> -merge=1 $source_dir/corpus/<target> $runs/<target>/corpus"
if [ ${#failures[@]} -gt 0 ]; then
  echo
  for target in "${failures[@]}"; do
    echo "fuzz: $target failed; see $runs/$target/fuzz.log. Artifacts:"
    find "$runs/$target/artifacts" -type f | sort | sed 's/^/  /'
    echo "  replay one: $build/fuzz/korv_fuzz_replay_$target ARTIFACT (KORV_FUZZ_TRACE=1 traces the read path);"
    echo "  shrink it:  $build/fuzz/korv_fuzz_$target -minimize_crash=1 -max_total_time=60 ARTIFACT"
  done
  exit 1
fi
