#!/usr/bin/env bash
# The client benchmark: korvmount over an nginx origin on loopback, side by
# side in one run with the limits of this machine (dd from the page cache, a
# pass-through FUSE file system, curl from the same origin) and with
# `rclone mount` of the same origin. Prints the figures and their ratios, and
# keeps them in BUILD_DIR/bench/client-bench/. What each row measures, and
# the figures of one run, are in bench/README.md.
#
# Usage: bench/client_bench.sh BUILD_DIR   (`make bench` runs it)
# Environment: BENCH_ROUNDS (default 3): rounds of the cold sequential rows;
# the warm rows run two more. BENCH_FUSE=0: the korvcat and curl rows only,
# as where FUSE cannot be used. TMPDIR: where the scratch directory goes
# (about 4 GiB at its fullest).
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-build}" && pwd)
# shellcheck source=client_bench_lib.sh
source "$here/client_bench_lib.sh"

korvmount=$build/client/bin/korvmount
korvcat=$build/client/bin/korvcat
read_load=$build/bench/read_load
delay_proxy=$build/bench/delay_proxy
passthrough_fs=$build/bench/passthrough_fs
for program in "$korvmount" "$korvcat" "$read_load" "$delay_proxy" "$passthrough_fs" /usr/sbin/nginx curl; do
  [ -x "$program" ] || command -v "$program" > /dev/null ||
    { echo "client_bench: $program is missing (make bench builds and installs everything)" >&2; exit 1; }
done

rounds=${BENCH_ROUNDS:-3}
warm_rounds=$((rounds + 2))   # cheap, and the noisiest rows
row_timeout=120              # seconds any one reader may take
latency_ms=5                 # added to every origin request in the "5 ms" rows
big_bytes=$((1 << 30))
small_count=200
small_bytes=$((256 << 10))
random_cold_ops=400          # per cold random row, whatever the thread count
random_warm_seconds=1         # per row and round
sector_bytes=$((512 << 10))  # korvcache's sector
# rclone's VFS cache, full mode, in a cache directory of its own per mount;
# everything else at rclone's defaults (attributes cached 1 s, as korvmount's).
rclone_flags=(--vfs-cache-mode full)

started=$(date +%s)
load_at_start=$(cut -d' ' -f1-3 /proc/loadavg)
bench_work=$(mktemp -d "${TMPDIR:-/tmp}/korv-client-bench.XXXXXX")
bench_traps
results=$bench_work/results.tsv
out_dir=$build/bench/client-bench
mkdir -p "$bench_work/root/small" "$bench_work/logs" "$bench_work/mnt" "$bench_work/cache" "$out_dir"
: > "$results"
: > "$bench_work/rclone.conf"   # the :http: remote needs no configuration

say() { printf '%s %s\n' "$(date +%T)" "$*"; }
fail() { echo "client_bench: $*" >&2; exit 1; }

# record BASE SYSTEM ROUND METRIC VALUE. The value mostly comes from a
# command substitution, where a failure ends only the subshell: an empty
# value is that failure.
record() {
  [ -n "${5:-}" ] || fail "no $4 for $1 $2 (round $3): the measurement failed"
  printf '%s\t%s\t%s\t%s\t%s\n' "$@" >> "$results"
}

json_field() { sed -n "s/.*\"$2\": \([0-9.e+-]*\).*/\1/p" <<< "$1"; }

# dd_rate FILE: MB/s of one dd of FILE in 1 MiB blocks.
dd_rate() {
  local out
  out=$(timeout "$row_timeout" dd if="$1" of=/dev/null bs=1M 2>&1) || fail "dd of $1 failed: $out"
  awk '/copied/ { for (i = 1; i < NF; i++) if ($i == "copied,") s = $(i + 1); bytes = $1 }
       END { if (bytes != '"$big_bytes"' || s <= 0) exit 1; printf "%.1f\n", bytes / s / 1e6 }' <<< "$out" ||
    fail "dd of $1 read less than the file: $out"
}

# curl_rate URL: MB/s of one download of the big file.
curl_rate() {
  local out
  out=$(timeout "$row_timeout" curl -s -o /dev/null -w '%{size_download} %{time_total}\n' "$1") || fail "curl $1 failed"
  awk -v want="$big_bytes" '{ if ($1 != want) exit 1; printf "%.1f\n", $1 / $2 / 1e6 }' <<< "$out" ||
    fail "curl $1 got $out"
}

# The origin's side of a row, from nginx's access log: a mark before the row,
# then the bytes and requests after it. Directory listings are left out.
log_mark() { wc -l < "$1"; }
log_fetched() { awk -F'\t' -v n="$2" 'NR > n && $2 !~ /\/$/ { b += $5 } END { printf "%.0f\n", b }' "$1"; }
log_requests() { awk -F'\t' -v n="$2" 'NR > n && $2 !~ /\/$/ { c++ } END { print c + 0 }' "$1"; }
# Waits until nothing more is logged for half a second (fetches still running
# behind a reader that has finished are logged when they end).
log_settle() {
  local before after i
  for ((i = 0; i < 20; i++)); do
    before=$(stat -c %s "$1")
    sleep 0.5
    after=$(stat -c %s "$1")
    [ "$before" = "$after" ] && return 0
  done
}

cache_kib() { du -sk "$1" | cut -f1; }
hwm_kib() { awk '/^VmHWM:/ { print $2 }' "/proc/${mount_pid[$1]}/status" 2> /dev/null || echo 0; }

# origin_side BASE SYSTEM ROUND LOG MARK: records what the row took from the
# origin (bytes, requests), and which lines of the access log are the row's.
origin_side() {
  record "$1" "$2" "$3" fetched "$(log_fetched "$4" "$5")"
  record "$1" "$2" "$3" requests "$(log_requests "$4" "$5")"
  record "$1" "$2" "$3" log_lines "$(($5 + 1))-$(log_mark "$4")"
}

# ---------------------------------------------------------------- the origin
say "making the origin's files in $bench_work/root: a 1 GiB file and $small_count files of 256 KiB"
head -c "$big_bytes" /dev/urandom > "$bench_work/root/big.bin"
head -c $((small_count * small_bytes)) /dev/urandom > "$bench_work/all-small"
split -b "$small_bytes" -a 3 -d "$bench_work/all-small" "$bench_work/root/small/f"
rm "$bench_work/all-small"
# Every reader below finds the origin's files in the page cache.
cat "$bench_work/root/big.bin" "$bench_work"/root/small/* > /dev/null

start_nginx "$bench_work" || fail "nginx did not start"
json_log=$bench_work/logs/json.log
html_log=$bench_work/logs/html.log
origin0=http://127.0.0.1:$json_port
html0=http://127.0.0.1:$html_port
start_proxy "$json_port" "$latency_ms" "$bench_work/logs/proxy-json.out" || fail "no delay proxy"
origin5=http://127.0.0.1:$proxy_port
start_proxy "$html_port" "$latency_ms" "$bench_work/logs/proxy-html.out" || fail "no delay proxy"
html5=http://127.0.0.1:$proxy_port
say "nginx: $origin0 (JSON listings, for korvmount), $html0 (HTML listings, for rclone);" \
    "$latency_ms ms per request: $origin5, $html5"

use_fuse=1
why_no_fuse=""
if [ "${BENCH_FUSE:-1}" = 0 ]; then
  use_fuse=0
  why_no_fuse="BENCH_FUSE=0"
elif [ ! -c /dev/fuse ] || ! (exec 3<> /dev/fuse) 2> /dev/null; then
  use_fuse=0
  why_no_fuse="/dev/fuse cannot be opened"
elif ! command -v fusermount3 > /dev/null; then
  use_fuse=0
  why_no_fuse="fusermount3 is missing"
elif ! mount_passthrough "$bench_work/mnt/pt" "$bench_work/root" "$bench_work/logs/passthrough.log"; then
  use_fuse=0
  why_no_fuse="a FUSE mount failed here: $(tail -n 1 "$bench_work/logs/passthrough.log")"
fi
use_rclone=1
command -v rclone > /dev/null || use_rclone=0

# ------------------------------------------------------- without FUSE at all
if [ $use_fuse -eq 0 ]; then
  say "FUSE cannot be used here ($why_no_fuse): only the korvcat and curl rows run"
  for ((r = 1; r <= rounds; r++)); do
    for latency in 0 "$latency_ms"; do
      url=$origin0
      [ "$latency" -eq 0 ] || url=$origin5
      record seq_cold_$latency curl $r mbps "$(curl_rate "$url/big.bin")"
      cache=$bench_work/cache/korvcat-$latency-$r
      t0=$(date +%s.%N)
      timeout "$row_timeout" "$korvcat" "$url/big.bin" --cache-dir "$cache" --limit 4G > /dev/null
      t1=$(date +%s.%N)
      record seq_cold_$latency korv $r mbps "$(awk -v b="$big_bytes" -v a="$t0" -v z="$t1" 'BEGIN { printf "%.1f", b / (z - a) / 1e6 }')"
      if [ "$latency" -eq 0 ]; then
        t0=$(date +%s.%N)
        timeout "$row_timeout" "$korvcat" "$url/big.bin" --cache-dir "$cache" --limit 4G > /dev/null
        t1=$(date +%s.%N)
        record seq_warm korv $r mbps "$(awk -v b="$big_bytes" -v a="$t0" -v z="$t1" 'BEGIN { printf "%.1f", b / (z - a) / 1e6 }')"
        record seq_warm page $r mbps "$(dd_rate "$bench_work/root/big.bin")"
      fi
      rm -rf "$cache"
    done
  done
fi

# ----------------------------------------------------------- with the mounts
# cold_seq LATENCY ROUND SYSTEM KEEP: a fresh mount reads the big file once;
# with KEEP the mount stays for the warm rows.
cold_seq() {
  local latency=$1 r=$2 sys=$3 keep=$4 mnt cache log mark url
  mnt=$bench_work/mnt/$sys-cold$latency-$r
  cache=$bench_work/cache/$sys-cold$latency-$r
  if [ "$sys" = korv ]; then
    log=$json_log
    url=$origin0
    [ "$latency" -eq 0 ] || url=$origin5
    mark=$(log_mark "$log")
    mount_korv "$mnt" "$url" "$cache" "$bench_work/logs/$sys-cold$latency-$r.log" || fail "korvmount did not mount"
  else
    log=$html_log
    url=$html0
    [ "$latency" -eq 0 ] || url=$html5
    mark=$(log_mark "$log")
    mount_rclone "$mnt" "$url" "$cache" "$bench_work/logs/$sys-cold$latency-$r.log" || fail "rclone did not mount"
  fi
  record seq_cold_"$latency" "$sys" "$r" mbps "$(dd_rate "$mnt/big.bin")"
  record seq_cold_"$latency" "$sys" "$r" read "$big_bytes"
  log_settle "$log"
  origin_side seq_cold_"$latency" "$sys" "$r" "$log" "$mark"
  record seq_cold_"$latency" "$sys" "$r" cache_kib "$(cache_kib "$cache")"
  record seq_cold_"$latency" "$sys" "$r" hwm_kib "$(hwm_kib "$mnt")"
  if [ "$keep" = 0 ]; then
    unmount_fs "$mnt"
    rm -rf "$cache"
  fi
}

# warm_mount SYSTEM: the mount point cold_seq kept for SYSTEM.
warm_mount() { echo "$bench_work/mnt/$1-cold0-$rounds"; }

# random_row BASE SYSTEM ROUND MOUNTPOINT LOG BLOCK THREADS LIMITS...: one
# read_load random run; records ops/s, bytes read and sectors touched. The
# reads are O_DIRECT, so that each one reaches the mount's process: with the
# page cache, the kernel alone would soon answer most reads of a warm run,
# and its read-ahead would widen the first reads of a cold one.
random_row() {
  local base=$1 sys=$2 r=$3 mnt=$4 log=$5 block=$6 threads=$7 out mark
  shift 7
  mark=0
  [ -z "$log" ] || mark=$(log_mark "$log")
  out=$(timeout "$row_timeout" "$read_load" random "$mnt/big.bin" --direct --block "$block" --threads "$threads" "$@") ||
    fail "read_load on $mnt failed: $out"
  echo "$base $sys $out" >> "$bench_work/logs/read_load.jsonl"
  record "$base" "$sys" "$r" ops "$(json_field "$out" ops_per_s)"
  record "$base" "$sys" "$r" read "$(json_field "$out" bytes)"
  record "$base" "$sys" "$r" touched "$(json_field "$out" sectors_touched)"
  random_mark=$mark
}

# files_row BASE SYSTEM DIR: read_load files; records files/s.
files_row() {
  local out
  out=$(timeout "$row_timeout" "$read_load" files "$3") || fail "read_load files $3 failed: $out"
  echo "$1 $2 $out" >> "$bench_work/logs/read_load.jsonl"
  [ "$(json_field "$out" files)" = "$small_count" ] || fail "read_load files $3 read $(json_field "$out" files) files"
  record "$1" "$2" 1 fps "$(json_field "$out" files_per_s)"
  record "$1" "$2" 1 read "$(json_field "$out" bytes)"
}

# curl_files URL_BASE: files/s of one curl fetching every small file in turn
# over one connection.
curl_files() {
  local config=$bench_work/curl-small.cfg i t0 t1
  : > "$config"
  for ((i = 0; i < small_count; i++)); do
    printf 'url = "%s/small/f%03d"\noutput = "/dev/null"\n' "$1" "$i" >> "$config"
  done
  t0=$(date +%s.%N)
  timeout "$row_timeout" curl -s -f -K "$config" || fail "curl of the small files from $1 failed"
  t1=$(date +%s.%N)
  awk -v n="$small_count" -v a="$t0" -v z="$t1" 'BEGIN { printf "%.1f\n", n / (z - a) }'
}

if [ $use_fuse -eq 1 ]; then
  systems=(korv)
  [ $use_rclone -eq 0 ] || systems+=(rclone)
  [ $use_rclone -eq 1 ] || say "rclone is not installed: its rows are left out (make bench installs it)"

  say "sequential reads of the 1 GiB file, cold: $rounds rounds, origin at 0 ms and at $latency_ms ms"
  for ((r = 1; r <= rounds; r++)); do
    # Who goes first alternates, so that a change in the machine's load
    # does not always hit the same side.
    order=("${systems[@]}")
    if ((r % 2 == 0)) && [ ${#systems[@]} -eq 2 ]; then order=(rclone korv); fi
    for latency in 0 "$latency_ms"; do
      url=$origin0
      [ "$latency" -eq 0 ] || url=$origin5
      record seq_cold_"$latency" curl "$r" mbps "$(curl_rate "$url/big.bin")"
      for sys in "${order[@]}"; do
        keep=0
        [ "$latency" -ne 0 ] || [ "$r" -ne "$rounds" ] || keep=1
        cold_seq "$latency" "$r" "$sys" "$keep"
      done
    done
    say "  round $r of $rounds done"
  done

  say "sequential reads, warm: $warm_rounds rounds of dd from the page cache, the pass-through mount and the mounts"
  for ((r = 1; r <= warm_rounds; r++)); do
    record seq_warm page "$r" mbps "$(dd_rate "$bench_work/root/big.bin")"
    order=(pt "${systems[@]}")
    ((r % 2 == 1)) || order=("${systems[@]}" pt)
    for sys in "${order[@]}"; do
      if [ "$sys" = pt ]; then
        record seq_warm pt "$r" mbps "$(dd_rate "$bench_work/mnt/pt/big.bin")"
        continue
      fi
      log=$json_log
      [ "$sys" = korv ] || log=$html_log
      mark=$(log_mark "$log")
      record seq_warm "$sys" "$r" mbps "$(dd_rate "$(warm_mount "$sys")/big.bin")"
      record seq_warm "$sys" "$r" read "$big_bytes"
      origin_side seq_warm "$sys" "$r" "$log" "$mark"
    done
  done

  say "random reads, warm (the whole file cached): $rounds rounds of ${random_warm_seconds} s per row"
  for ((r = 1; r <= rounds; r++)); do
    # Each round starts with another of the file systems.
    order=(pt "${systems[@]}")
    for ((i = 1; i < r; i++)); do order=("${order[@]:1}" "${order[0]}"); done
    for block in 4096 65536; do
      for threads in 1 4 16; do
        base=rand_warm_${block}_$threads
        for sys in "${order[@]}"; do
          if [ "$sys" = pt ]; then
            random_row "$base" pt "$r" "$bench_work/mnt/pt" "" "$block" "$threads" --seconds "$random_warm_seconds"
            continue
          fi
          log=$json_log
          [ "$sys" = korv ] || log=$html_log
          random_row "$base" "$sys" "$r" "$(warm_mount "$sys")" "$log" "$block" "$threads" \
            --seconds "$random_warm_seconds"
          origin_side "$base" "$sys" "$r" "$log" "$random_mark"
          record "$base" "$sys" "$r" hwm_kib "$(hwm_kib "$(warm_mount "$sys")")"
        done
      done
    done
  done
  for sys in "${systems[@]}"; do
    mnt=$(warm_mount "$sys")
    record seq_warm "$sys" 1 cache_kib "$(cache_kib "$bench_work/cache/$sys-cold0-$rounds")"
    unmount_fs "$mnt"
    record seq_warm "$sys" 1 hwm_kib "$last_hwm_kib"
    rm -rf "$bench_work/cache/$sys-cold0-$rounds"
  done

  say "random reads, cold: $random_cold_ops reads per row, each row on a fresh mount"
  for block in 4096 65536; do
    for threads in 1 4 16; do
      base=rand_cold_${block}_$threads
      for sys in "${systems[@]}"; do
        mnt=$bench_work/mnt/$sys-$base
        cache=$bench_work/cache/$sys-$base
        if [ "$sys" = korv ]; then
          log=$json_log
          mark=$(log_mark "$log")
          mount_korv "$mnt" "$origin0" "$cache" "$bench_work/logs/$sys-$base.log" || fail "korvmount did not mount"
        else
          log=$html_log
          mark=$(log_mark "$log")
          mount_rclone "$mnt" "$html0" "$cache" "$bench_work/logs/$sys-$base.log" || fail "rclone did not mount"
        fi
        random_row "$base" "$sys" 1 "$mnt" "" "$block" "$threads" --count "$random_cold_ops" --seconds 30
        # Whatever the mount still fetches after the reads counts too.
        log_settle "$log"
        record "$base" "$sys" 1 cache_kib "$(cache_kib "$cache")"
        unmount_fs "$mnt"
        record "$base" "$sys" 1 hwm_kib "$last_hwm_kib"
        log_settle "$log"
        origin_side "$base" "$sys" 1 "$log" "$mark"
        rm -rf "$cache"
      done
    done
  done

  say "$small_count files of 256 KiB, cold and warm, origin at 0 ms and at $latency_ms ms"
  files_row small_warm_0 pt "$bench_work/mnt/pt/small"
  for latency in 0 "$latency_ms"; do
    url=$origin0
    [ "$latency" -eq 0 ] || url=$origin5
    record small_cold_"$latency" curl 1 fps "$(curl_files "$url")"
    for sys in "${systems[@]}"; do
      mnt=$bench_work/mnt/$sys-small$latency
      cache=$bench_work/cache/$sys-small$latency
      if [ "$sys" = korv ]; then
        log=$json_log
        mark=$(log_mark "$log")
        mount_korv "$mnt" "$url" "$cache" "$bench_work/logs/$sys-small$latency.log" || fail "korvmount did not mount"
      else
        log=$html_log
        hurl=$html0
        [ "$latency" -eq 0 ] || hurl=$html5
        mark=$(log_mark "$log")
        mount_rclone "$mnt" "$hurl" "$cache" "$bench_work/logs/$sys-small$latency.log" || fail "rclone did not mount"
      fi
      files_row small_cold_"$latency" "$sys" "$mnt/small"
      log_settle "$log"
      origin_side small_cold_"$latency" "$sys" 1 "$log" "$mark"
      record small_cold_"$latency" "$sys" 1 cache_kib "$(cache_kib "$cache")"
      record small_cold_"$latency" "$sys" 1 hwm_kib "$(hwm_kib "$mnt")"
      mark=$(log_mark "$log")
      files_row small_warm_"$latency" "$sys" "$mnt/small"
      log_settle "$log"
      origin_side small_warm_"$latency" "$sys" 1 "$log" "$mark"
      record small_warm_"$latency" "$sys" 1 cache_kib "$(cache_kib "$cache")"
      unmount_fs "$mnt"
      record small_warm_"$latency" "$sys" 1 hwm_kib "$last_hwm_kib"
      rm -rf "$cache"
    done
  done
  unmount_fs "$bench_work/mnt/pt"
fi

# ------------------------------------------------------------------ summary
# median BASE SYSTEM METRIC: the median over the rounds.
median() {
  awk -F'\t' -v b="$1" -v s="$2" -v m="$3" '
    $1 == b && $2 == s && $4 == m { v[n++] = $5 + 0 }
    END {
      if (n == 0) { print ""; exit }
      for (i = 1; i < n; i++) for (j = i; j > 0 && v[j - 1] > v[j]; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
      printf "%.10g\n", (n % 2 ? v[int(n / 2)] : (v[n / 2 - 1] + v[n / 2]) / 2)
    }' "$results"
}

# ratio BASE SYS_A SYS_B METRIC [RANGE]: the median over the rounds of A/B,
# each round paired with itself; with RANGE 1 also the range over the rounds.
ratio() {
  awk -F'\t' -v b="$1" -v sa="$2" -v sb="$3" -v m="${4:-}" -v want_range="${5:-0}" '
    $1 == b && $4 == m && $2 == sa { a[$3] = $5 + 0 }
    $1 == b && $4 == m && $2 == sb { z[$3] = $5 + 0 }
    END {
      for (r in a) if ((r in z) && z[r] > 0) v[n++] = a[r] / z[r]
      if (n == 0) { print ""; exit }
      for (i = 1; i < n; i++) for (j = i; j > 0 && v[j - 1] > v[j]; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
      med = n % 2 ? v[int(n / 2)] : (v[n / 2 - 1] + v[n / 2]) / 2
      if (want_range && n > 1) printf "%.2f (%.2f..%.2f)\n", med, v[0], v[n - 1]
      else printf "%.2f\n", med
    }' "$results"
}

fmt() { [ -n "$1" ] && printf "%.${2:-0}f" "$1" || printf 'n/a'; }
per_read() { # BASE SYSTEM: origin bytes per byte read
  local f r
  f=$(median "$1" "$2" fetched)
  r=$(median "$1" "$2" read)
  [ -n "$f" ] && [ -n "$r" ] && [ "$r" != 0 ] && awk -v f="$f" -v r="$r" 'BEGIN { printf "%.2f", f / r }' || printf 'n/a'
}
bound_per_read() { # BASE: touched sectors x 512 KiB per byte read, korvmount's run
  local t r
  t=$(median "$1" korv touched)
  r=$(median "$1" korv read)
  [ -n "$t" ] && [ -n "$r" ] && awk -v t="$t" -v r="$r" -v s="$sector_bytes" 'BEGIN { printf "%.1f", t * s / r }' || printf 'n/a'
}
mib() { [ -n "$1" ] && awk -v k="$1" 'BEGIN { printf "%.0f", k / 1024 }' || printf 'n/a'; }

summary=$bench_work/summary.txt
{
  echo
  echo "Client benchmark, one run, side by side ($(nproc) cores; load average at the start $load_at_start," \
    "at the end $(cut -d' ' -f1-3 /proc/loadavg))"
  echo "figures are medians over the rounds; ratios are paired round by round, range over the rounds in brackets"
  line() { # LABEL UNIT BASE METRIC REF_SYS REF_LABEL
    local ref_value="" ref_ratio=""
    if [ -n "$5" ]; then
      ref_value=$(fmt "$(median "$3" "$5" "$4")")
      ref_ratio=$(ratio "$3" korv "$5" "$4" 1)
    fi
    printf '%-30s %-7s %9s %9s %-19s   %-26s %9s %s\n' "$1" "$2" "$(fmt "$(median "$3" korv "$4")")" \
      "$(fmt "$(median "$3" rclone "$4")")" "$(ratio "$3" korv rclone "$4" 1)" "$6" "$ref_value" "$ref_ratio"
  }
  if [ $use_fuse -eq 1 ]; then
    echo "korv = korvmount (default settings, --limit 4G); rclone = rclone mount :http: ${rclone_flags[*]} --cache-dir DIR"
    echo
    printf '%-30s %-7s %9s %9s %-19s   %-26s %9s %s\n' row unit korv rclone korv/rclone reference ref korv/ref
    line "seq 1 GiB warm, dd bs=1M" MB/s seq_warm mbps pt "pass-through FUSE"
    printf '%-30s %-7s %9s %9s %-19s   %-26s %9s %s\n' "" "" "" "" "" "dd from the page cache" \
      "$(fmt "$(median seq_warm page mbps)")" "$(ratio seq_warm korv page mbps 1)"
    line "seq 1 GiB cold, 0 ms" MB/s seq_cold_0 mbps curl "curl, same origin"
    line "seq 1 GiB cold, $latency_ms ms" MB/s seq_cold_$latency_ms mbps curl "curl, same proxy"
    for temp in cold warm; do
      for block in 4096 65536; do
        for threads in 1 4 16; do
          if [ $temp = warm ]; then
            line "random $((block / 1024)) KiB x$threads $temp" ops/s rand_${temp}_${block}_$threads ops pt "pass-through FUSE"
          else
            line "random $((block / 1024)) KiB x$threads $temp" ops/s rand_${temp}_${block}_$threads ops "" ""
          fi
        done
      done
    done
    for latency in 0 "$latency_ms"; do
      line "200 x 256 KiB cold, $latency ms" files/s small_cold_$latency fps curl "curl, one connection"
      if [ "$latency" -eq 0 ]; then
        line "200 x 256 KiB warm, $latency ms" files/s small_warm_$latency fps pt "pass-through FUSE"
      else
        line "200 x 256 KiB warm, $latency ms" files/s small_warm_$latency fps "" ""
      fi
    done
    echo
    echo "Origin traffic and resources (korv | rclone): origin bytes per byte read, origin requests, cache"
    echo "directory after the row (du, MiB), peak resident memory of the mount process (VmHWM, MiB)"
    printf '%-30s %15s %15s %15s %15s %s\n' row "fetched/read" requests "cache MiB" "VmHWM MiB" "bound"
    usage() { # LABEL BASE [BOUND]
      printf '%-30s %15s %15s %15s %15s %s\n' "$1" \
        "$(per_read "$2" korv) | $(per_read "$2" rclone)" \
        "$(fmt "$(median "$2" korv requests)") | $(fmt "$(median "$2" rclone requests)")" \
        "$(mib "$(median "$2" korv cache_kib)") | $(mib "$(median "$2" rclone cache_kib)")" \
        "$(mib "$(median "$2" korv hwm_kib)") | $(mib "$(median "$2" rclone hwm_kib)")" "${3:-}"
    }
    usage "seq 1 GiB cold, 0 ms" seq_cold_0
    usage "seq 1 GiB cold, $latency_ms ms" seq_cold_$latency_ms
    usage "seq 1 GiB warm" seq_warm
    for temp in cold warm; do
      for block in 4096 65536; do
        for threads in 1 4 16; do
          b=""
          [ $temp = warm ] || b="touched sectors: $(bound_per_read rand_${temp}_${block}_$threads) per byte read"
          usage "random $((block / 1024)) KiB x$threads $temp" rand_${temp}_${block}_$threads "$b"
        done
      done
    done
    for latency in 0 "$latency_ms"; do
      usage "200 x 256 KiB cold, $latency ms" small_cold_$latency
      usage "200 x 256 KiB warm, $latency ms" small_warm_$latency
    done

    echo
    echo "Targets"
    verdict() { # LABEL VALUE LIMIT (at least)
      if [ -z "$2" ]; then printf '  %-58s n/a\n' "$1"; return; fi
      awk -v l="$1" -v v="$2" -v t="$3" 'BEGIN {
        if (v >= t) printf "  %-58s %.2f  met (target >= %s)\n", l, v, t
        else printf "  %-58s %.2f  MISSED by %.0f%% (target >= %s)\n", l, v, (t - v) / t * 100, t }'
    }
    first() { cut -d' ' -f1 <<< "$1"; }
    verdict "warm sequential, korv / pass-through FUSE" "$(first "$(ratio seq_warm korv pt mbps)")" 0.8
    verdict "cold sequential at $latency_ms ms, korv / curl" "$(first "$(ratio seq_cold_$latency_ms korv curl mbps)")" 0.9
    for block in 4096 65536; do
      for threads in 1 4 16; do
        base=rand_cold_${block}_$threads
        f=$(median "$base" korv fetched)
        t=$(median "$base" korv touched)
        if [ -n "$f" ] && [ -n "$t" ]; then
          awk -v l="random $((block / 1024)) KiB x$threads cold, fetched / touched sectors" -v f="$f" -v t="$t" -v s="$sector_bytes" 'BEGIN {
            v = f / (t * s)
            if (v <= 1.0) printf "  %-58s %.2f  met (target <= 1)\n", l, v
            else printf "  %-58s %.2f  MISSED: %.0f%% more than the sectors touched\n", l, v, (v - 1) * 100 }'
        fi
      done
    done
    if [ $use_rclone -eq 1 ]; then
      verdict "warm sequential, korv / rclone" "$(ratio seq_warm korv rclone mbps)" 1.5
      verdict "cold sequential at 0 ms, korv / rclone" "$(ratio seq_cold_0 korv rclone mbps)" 1.5
      verdict "cold sequential at $latency_ms ms, korv / rclone" "$(ratio seq_cold_$latency_ms korv rclone mbps)" 1.5
      for temp in cold warm; do
        for block in 4096 65536; do
          for threads in 1 4 16; do
            verdict "random $((block / 1024)) KiB x$threads $temp, korv / rclone (ahead)" \
              "$(ratio rand_${temp}_${block}_$threads korv rclone ops)" 1.0
          done
        done
      done
      for latency in 0 "$latency_ms"; do
        for temp in cold warm; do
          verdict "200 x 256 KiB $temp at $latency ms, korv / rclone (ahead)" \
            "$(ratio small_${temp}_$latency korv rclone fps)" 1.0
        done
      done
    fi
  else
    echo "FUSE cannot be used here ($why_no_fuse): korvcat instead of the mount, no rclone"
    echo
    printf '%-30s %-7s %9s   %-26s %9s %s\n' row unit korvcat reference ref korvcat/ref
    printf '%-30s %-7s %9s   %-26s %9s %s\n' "seq 1 GiB cold, 0 ms" MB/s "$(fmt "$(median seq_cold_0 korv mbps)")" \
      "curl, same origin" "$(fmt "$(median seq_cold_0 curl mbps)")" "$(ratio seq_cold_0 korv curl mbps 1)"
    printf '%-30s %-7s %9s   %-26s %9s %s\n' "seq 1 GiB cold, $latency_ms ms" MB/s \
      "$(fmt "$(median seq_cold_$latency_ms korv mbps)")" "curl, same proxy" \
      "$(fmt "$(median seq_cold_$latency_ms curl mbps)")" "$(ratio seq_cold_$latency_ms korv curl mbps 1)"
    printf '%-30s %-7s %9s   %-26s %9s %s\n' "seq 1 GiB warm" MB/s "$(fmt "$(median seq_warm korv mbps)")" \
      "dd from the page cache" "$(fmt "$(median seq_warm page mbps)")" "$(ratio seq_warm korv page mbps 1)"
  fi
  echo
  echo "client benchmark took $(($(date +%s) - started)) s"
} > "$summary"

cat "$summary"
cp "$summary" "$out_dir/summary.txt"
cp "$results" "$out_dir/results.tsv"
[ ! -f "$bench_work/logs/read_load.jsonl" ] || cp "$bench_work/logs/read_load.jsonl" "$out_dir/read_load.jsonl"
cp "$json_log" "$out_dir/origin-korvmount.log"
cp "$html_log" "$out_dir/origin-rclone.log"
echo "(kept in $out_dir)"
