#!/usr/bin/env bash
# The client benchmark: korvmount over an nginx WebDAV origin on loopback,
# side by side in one run with the limits of this machine (dd from the page
# cache, a pass-through FUSE file system, curl from the same origin) and with
# the peers that speak WebDAV: `rclone mount` of a :webdav: remote and
# davfs2 (`mount -t davfs`, as root). Reads, writes and everyday tools (git
# clone, tar x, rsync, ls -lR, cp -r) in the mounts. Prints the figures and
# their ratios, and keeps them in BUILD_DIR/bench/client-bench/. What each row
# measures, and the figures of one run, are in bench/README.md.
#
# Usage: bench/client_bench.sh BUILD_DIR   (`make bench` runs it)
# Environment: BENCH_ROUNDS (default 3): rounds of the cold sequential rows
# and of the write and tool rows; the warm rows run two more. BENCH_FUSE=0:
# the korvcat and curl rows only, as where FUSE cannot be used.
# BENCH_TOOLS=0: leave out the write and tool rows. BENCH_ONLY: a comma list
# of the groups of rows to run, all of them when unset: seq (sequential cold
# and warm, and the warm random rows on the warm mounts), random (cold random),
# small (200 files cold and warm), remount (reads again after an unmount and a
# mount on the same cache directory), tools (the 256 MiB write, git clone and
# tar x), reads (rsync -a, ls -lR and cp -r out of the mount); for example
# BENCH_ONLY=remount,tools. BENCH_PEERS (default "rclone davfs"): the peers
# measured beside korvmount. TMPDIR: where the scratch directory goes (about
# 5 GiB at its fullest).
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
if [[ ",${BENCH_ONLY:-remount}," == *,remount,* ]] && ! command -v jq > /dev/null; then
  echo "client_bench: jq is missing (the remount rows read korvmount's .korvcache-stats with it)" >&2
  exit 1
fi

rounds=${BENCH_ROUNDS:-3}
warm_rounds=$((rounds + 2))   # cheap, and the noisiest rows
row_timeout=120              # seconds any one reader may take
latency_ms=5                 # added to every origin request in the "5 ms" rows
link_mbps=50                 # the remount rows' slow link: 5 ms and 50 MB/s of answers
big_bytes=$((1 << 30))
small_count=200
small_bytes=$((256 << 10))
random_cold_ops=400          # per cold random row, whatever the thread count
random_warm_seconds=1         # per row and round
sector_bytes=$((512 << 10))  # korvcache's sector
# rclone's VFS cache, full mode, in a cache directory of its own per mount;
# everything else at rclone's defaults (attributes cached 1 s, as korvmount's;
# writes uploaded 5 s after the last close, --vfs-write-back 5s).
rclone_flags=(--vfs-cache-mode full)
# The write and tool rows.
tool_timeout=240             # seconds one tool may take in a mount
origin_timeout=120           # seconds a written tree may take to reach the origin
write_bytes=$((256 << 20))
tree_dirs=40                 # the tree of git clone, tar x, rsync and ls -lR:
tree_per_dir=50              # 40 x 50 files of 256 B to 16 KiB
mixed_small=1000             # the mixed tree of cp -r: 1,000 files of 4 to 64 KiB
mixed_large=400              # and 400 of 256 KiB to 768 KiB

# want GROUP: true if BENCH_ONLY is unset or names GROUP.
want() { [ -z "${BENCH_ONLY:-}" ] || [[ ",$BENCH_ONLY," == *",$1,"* ]]; }
for group in ${BENCH_ONLY//,/ }; do
  case $group in seq | random | small | remount | tools | reads) ;;
    *) echo "client_bench: BENCH_ONLY names no group $group (seq random small remount tools reads)" >&2; exit 2 ;;
  esac
done
[ "${BENCH_TOOLS:-1}" != 0 ] || BENCH_ONLY=$(for g in seq random small remount; do want $g && printf '%s,' $g; done)
BENCH_ONLY=${BENCH_ONLY%,}
peers=${BENCH_PEERS-rclone davfs}
use_tools=0
if want tools || want reads; then use_tools=1; fi

started=$(date +%s)
load_at_start=$(cut -d' ' -f1-3 /proc/loadavg)
bench_work=$(mktemp -d "${TMPDIR:-/tmp}/korv-client-bench.XXXXXX")
bench_traps
results=$bench_work/results.tsv
out_dir=$build/bench/client-bench
mkdir -p "$bench_work/root/small" "$bench_work/logs" "$bench_work/mnt" "$bench_work/cache" "$bench_work/src" \
  "$bench_work/out" "$out_dir"
: > "$results"
: > "$bench_work/rclone.conf"   # the :webdav: remote needs no configuration

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

# dd_rate FILE: MB/s of one dd of FILE in 1 MiB blocks, timed from before
# dd starts to after it ends: dd's own figure leaves out its open(), and
# davfs2 downloads the whole file inside open().
dd_rate() {
  local out t0 t1
  t0=$(date +%s.%N)
  out=$(timeout "$row_timeout" dd if="$1" of=/dev/null bs=1M 2>&1) || fail "dd of $1 failed: $out"
  t1=$(date +%s.%N)
  awk -v a="$t0" -v z="$t1" '/copied/ { bytes = $1 }
       END { if (bytes != '"$big_bytes"' || z <= a) exit 1; printf "%.1f\n", bytes / (z - a) / 1e6 }' <<< "$out" ||
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
log_listings() { awk -F'\t' -v n="$2" 'NR > n && $2 ~ /\/$/ { c++ } END { print c + 0 }' "$1"; }
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
hwm_kib() { awk '/^VmHWM:/ { print $2 }' "/proc/${mount_pid[$1]:-0}/status" 2> /dev/null || echo 0; }

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
# The write and tool rows' sources, made on the local disk (src/) and the
# origin's copies of the trees: a 256 MiB file; a tree of 2,000 small files,
# as a git repository (packed), as a tar file and on the origin (root/tree);
# a mixed tree of 1,400 files, about 250 MB (root/mixed). Sizes from a fixed
# seed, so that every run has the same trees.
if [ $use_tools = 1 ]; then
  say "making the write and tool rows' trees: $((tree_dirs * tree_per_dir)) small files," \
      "$((mixed_small + mixed_large)) mixed files, a file of $((write_bytes >> 20)) MiB"
  head -c "$write_bytes" /dev/urandom > "$bench_work/src/write.bin"
  RANDOM=4242
  for ((d = 0; d < tree_dirs; d++)); do
    dir=$bench_work/src/tree/d$(printf %02d $d)
    mkdir -p "$dir"
    for ((f = 0; f < tree_per_dir; f++)); do
      head -c $((256 + (RANDOM * 32768 + RANDOM) % (16384 - 256))) /dev/urandom > "$dir/f$(printf %02d $f).dat"
    done
  done
  for ((f = 0; f < mixed_small + mixed_large; f++)); do
    dir=$bench_work/src/mixed/m$((f % 20))
    mkdir -p "$dir"
    if ((f < mixed_small)); then
      size=$((4096 + (RANDOM * 32768 + RANDOM) % (65536 - 4096)))
    else
      size=$((262144 + (RANDOM * 32768 + RANDOM) % (786432 - 262144)))
    fi
    head -c "$size" /dev/urandom > "$dir/f$(printf %04d $f).dat"
  done
  tar -cf "$bench_work/src/tree.tar" -C "$bench_work/src" tree
  git init -q "$bench_work/src/repo"
  cp -r "$bench_work/src/tree/." "$bench_work/src/repo/"
  git -C "$bench_work/src/repo" add -A
  git -C "$bench_work/src/repo" -c user.name=bench -c user.email=bench@localhost commit -q -m tree
  git -C "$bench_work/src/repo" gc -q
  cp -r "$bench_work/src/tree" "$bench_work/src/mixed" "$bench_work/root/"
  tree_files=$(find "$bench_work/src/tree" -type f | wc -l)
  tree_bytes=$(find "$bench_work/src/tree" -type f -printf '%s\n' | awk '{ s += $1 } END { print s }')
  mixed_files=$(find "$bench_work/src/mixed" -type f | wc -l)
  mixed_bytes=$(find "$bench_work/src/mixed" -type f -printf '%s\n' | awk '{ s += $1 } END { print s }')
  RANDOM=$$
  say "  tree: $tree_files files, $tree_bytes bytes; mixed tree: $mixed_files files, $mixed_bytes bytes"
fi
# Every reader below finds the origin's files in the page cache.
cat "$bench_work/root/big.bin" "$bench_work"/root/small/* > /dev/null

start_nginx "$bench_work" || fail "nginx did not start"
# Each client has a server (and an access log) of its own over the same root,
# and a delay proxy in front of it for the "5 ms" rows. korvwb is korvmount
# with --write-back 5 (the write and tool rows), on korvmount's server.
declare -A origin_url=()
for sys in korv rclone davfs; do
  port=${sys}_port
  origin_url["$sys 0"]=http://127.0.0.1:${!port}
  start_proxy "${!port}" "$latency_ms" "$bench_work/logs/proxy-$sys.out" || fail "no delay proxy"
  origin_url["$sys $latency_ms"]=http://127.0.0.1:$proxy_port
  start_proxy "${!port}" "$latency_ms" "$bench_work/logs/proxy-$sys-link.out" "$link_mbps" || fail "no delay proxy"
  origin_url["$sys link"]=http://127.0.0.1:$proxy_port
done
url_of() { echo "${origin_url[${1%wb} $2]}"; }   # url_of SYSTEM LATENCY
log_of() { echo "$bench_work/logs/${1%wb}.log"; } # log_of SYSTEM: its access log
origin0=$(url_of korv 0)
origin5=$(url_of korv "$latency_ms")
say "nginx (WebDAV): korvmount $origin0, rclone $(url_of rclone 0), davfs2 $(url_of davfs 0);" \
    "$latency_ms ms per request: $origin5, $(url_of rclone "$latency_ms"), $(url_of davfs "$latency_ms")"

# mount_sys SYSTEM MOUNTPOINT LATENCY CACHE_DIR LOG
mount_sys() {
  local url
  url=$(url_of "$1" "$3")
  case $1 in
    korv) mount_korv "$2" "$url" "$4" "$5" ;;
    korvwb) mount_korv "$2" "$url" "$4" "$5" --write-back 5 ;;
    rclone) mount_rclone "$2" "$url" "$4" "$5" ;;
    davfs) mount_davfs "$2" "$url" "$4" "$5" ;;
  esac || fail "$1 did not mount $2"
}

# rotated N SYSTEMS...: prints SYSTEMS turned left N times, so that each round
# starts with another system and a change in the machine's load does not
# always hit the same one.
rotated() {
  local n=$1
  shift
  local list=("$@") i
  for ((i = 0; i < n % ${#list[@]}; i++)); do list=("${list[@]:1}" "${list[0]}"); done
  echo "${list[@]}"
}

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
[[ " $peers " == *" rclone "* ]] || use_rclone=2
use_davfs=1
why_no_davfs=""
if [[ " $peers " != *" davfs "* ]]; then
  use_davfs=0
  why_no_davfs="BENCH_PEERS leaves it out"
elif ! command -v mount.davfs > /dev/null; then
  use_davfs=0
  why_no_davfs="davfs2 is not installed (make bench installs it)"
elif [ "$(id -u)" -ne 0 ]; then
  use_davfs=0
  why_no_davfs="mount -t davfs needs root here"
fi

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
  local latency=$1 r=$2 sys=$3 keep=$4 mnt cache log mark
  mnt=$bench_work/mnt/$sys-cold$latency-$r
  cache=$bench_work/cache/$sys-cold$latency-$r
  log=$(log_of "$sys")
  mark=$(log_mark "$log")
  mount_sys "$sys" "$mnt" "$latency" "$cache" "$bench_work/logs/$sys-cold$latency-$r.log"
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

# files_row BASE SYSTEM DIR [ROUND]: read_load files; records files/s.
files_row() {
  local out
  out=$(timeout "$row_timeout" "$read_load" files "$3") || fail "read_load files $3 failed: $out"
  echo "$1 $2 $out" >> "$bench_work/logs/read_load.jsonl"
  [ "$(json_field "$out" files)" = "$small_count" ] || fail "read_load files $3 read $(json_field "$out" files) files"
  record "$1" "$2" "${4:-1}" fps "$(json_field "$out" files_per_s)"
  record "$1" "$2" "${4:-1}" read "$(json_field "$out" bytes)"
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

# ------------------------------------------------- writes and everyday tools
# now: seconds since the epoch, with nanoseconds.
now() { date +%s.%N; }
since() { awk -v a="$1" -v z="$(now)" 'BEGIN { printf "%.3f\n", z - a }'; }

# timed_tool BASE SYSTEM ROUND LOG COMMAND...: runs COMMAND (bounded by
# tool_timeout) and records its seconds, or "failed" with its exit status and
# the end of its output in LOG. Returns the command's status.
timed_tool() {
  local base=$1 sys=$2 r=$3 log=$4 t0 status=0
  shift 4
  t0=$(now)
  timeout "$tool_timeout" "$@" > "$log" 2>&1 || status=$?
  if [ $status -eq 0 ]; then
    record "$base" "$sys" "$r" secs "$(since "$t0")"
  else
    record "$base" "$sys" "$r" failed "$status"
    say "  $base: $sys failed (status $status): $(tail -n 2 "$log" | tr '\n' ' ')"
  fi
  tool_t0=$t0
  return $status
}

# tree_on_origin DIR FILES BYTES: true once DIR on the origin holds FILES
# files of BYTES bytes in all (leaving out .git). nginx writes an upload to a
# temporary file and renames it into place, so a file of its full size is a
# complete one.
tree_on_origin() {
  find "$1" -name .git -prune -o -type f -printf '%s\n' 2> /dev/null |
    awk -v n="$2" -v b="$3" '{ c++; s += $1 } END { exit !(c == n && s == b) }'
}

# until_on_origin BASE SYSTEM ROUND T0 DIR FILES BYTES: polls the origin's
# root until DIR holds the tree, and records the seconds since T0 (the start
# of the command that wrote it), or "failed" after origin_timeout.
until_on_origin() {
  local i limit=$((origin_timeout * 20))
  for ((i = 0; i < limit; i++)); do
    if tree_on_origin "$5" "$6" "$7"; then
      record "$1" "$2" "$3" origin_secs "$(since "$4")"
      return 0
    fi
    sleep 0.05
  done
  record "$1" "$2" "$3" origin_failed 1
  say "  $1: $2's tree was not on the origin after $origin_timeout s"
}

# write_side SYSTEM LATENCY ROUND: on a fresh mount, a 256 MiB file copied in
# (until close returns, and until the origin has it), then git clone and
# tar x of the tree (until the command returns, and until the origin has the
# tree). korvwb, korvmount with --write-back 5, the same rows.
write_side() {
  local sys=$1 latency=$2 r=$3 name mnt cache dir origin_dir mark log
  name=$sys-tools$latency-$r
  mnt=$bench_work/mnt/$name
  cache=$bench_work/cache/$name
  dir=w-$name
  origin_dir=$bench_work/root/$dir
  log=$(log_of "$sys")
  mark=$(log_mark "$log")
  mount_sys "$sys" "$mnt" "$latency" "$cache" "$bench_work/logs/$name.log"
  if ! mkdir "$mnt/$dir" 2> "$bench_work/logs/$name-mkdir.out"; then
    record write_"$latency" "$sys" "$r" failed 1
    say "  $sys: mkdir in the mount failed: $(cat "$bench_work/logs/$name-mkdir.out")"
  else
    if timed_tool write_"$latency" "$sys" "$r" "$bench_work/logs/$name-write.out" \
      cp "$bench_work/src/write.bin" "$mnt/$dir/write.bin"; then
      until_on_origin write_"$latency" "$sys" "$r" "$tool_t0" "$origin_dir" 1 "$write_bytes"
    fi
    if timed_tool git_"$latency" "$sys" "$r" "$bench_work/logs/$name-git.out" \
      git clone -q --no-hardlinks "$bench_work/src/repo" "$mnt/$dir/repo"; then
      until_on_origin git_"$latency" "$sys" "$r" "$tool_t0" "$origin_dir/repo" "$tree_files" "$tree_bytes"
    fi
    if mkdir "$mnt/$dir/tar" && timed_tool tar_"$latency" "$sys" "$r" "$bench_work/logs/$name-tar.out" \
      tar -xmf "$bench_work/src/tree.tar" -C "$mnt/$dir/tar"; then
      until_on_origin tar_"$latency" "$sys" "$r" "$tool_t0" "$origin_dir/tar/tree" "$tree_files" "$tree_bytes"
    fi
  fi
  record write_"$latency" "$sys" "$r" requests "$(log_requests "$log" "$mark")"
  unmount_fs "$mnt"
  rm -rf "$cache" "$cache.davfs2.conf" "$origin_dir"
}

# read_side SYSTEM LATENCY ROUND: each on a fresh mount, rsync -a of the tree
# out of the mount, ls -lR over it, and cp -r of the mixed tree out of it;
# after the cp, the cache directory's size (du) against the bytes read.
read_side() {
  local sys=$1 latency=$2 r=$3 row mnt cache log mark out
  log=$(log_of "$sys")
  for row in rsync ls cp; do
    mnt=$bench_work/mnt/$sys-$row$latency-$r
    cache=$bench_work/cache/$sys-$row$latency-$r
    out=$bench_work/out/$sys-$row
    mark=$(log_mark "$log")
    mount_sys "$sys" "$mnt" "$latency" "$cache" "$bench_work/logs/$sys-$row$latency-$r.log"
    case $row in
      rsync)
        if timed_tool rsync_"$latency" "$sys" "$r" "$bench_work/logs/$sys-$row$latency-$r.out" \
          rsync -a "$mnt/tree/" "$out/" && ! tree_on_origin "$out" "$tree_files" "$tree_bytes"; then
          say "  rsync_$latency: $sys copied an incomplete tree"
          record rsync_"$latency" "$sys" "$r" incomplete 1
        fi
        record rsync_"$latency" "$sys" "$r" read "$tree_bytes" ;;
      ls)
        timed_tool ls_"$latency" "$sys" "$r" "$out.ls" ls -lR "$mnt/tree" || true
        record ls_"$latency" "$sys" "$r" lines "$(wc -l < "$out.ls")" ;;
      cp)
        if timed_tool cp_"$latency" "$sys" "$r" "$bench_work/logs/$sys-$row$latency-$r.out" \
          cp -r "$mnt/mixed" "$out"; then
          tree_on_origin "$out" "$mixed_files" "$mixed_bytes" ||
            { say "  cp_$latency: $sys copied an incomplete tree"; record cp_"$latency" "$sys" "$r" incomplete 1; }
          record cp_"$latency" "$sys" "$r" read "$mixed_bytes"
        fi
        log_settle "$log"
        record cp_"$latency" "$sys" "$r" cache_kib "$(cache_kib "$cache")"
        record cp_"$latency" "$sys" "$r" cache_apparent "$(du -sb --apparent-size "$cache" | cut -f1)"
        [ "$sys" != korv ] || cp "$mnt/.korvcache-stats" "$bench_work/logs/$sys-$row$latency-$r.stats" 2> /dev/null || true
        record cp_"$latency" "$sys" "$r" hwm_kib "$(hwm_kib "$mnt")" ;;
    esac
    log_settle "$log"
    record "${row}_$latency" "$sys" "$r" fetched "$(log_fetched "$log" "$mark")"
    record "${row}_$latency" "$sys" "$r" requests "$(log_requests "$log" "$mark")"
    unmount_fs "$mnt"
    rm -rf "$cache" "$cache.davfs2.conf" "$out" "$out.ls"
  done
}

# ------------------------------------------------------ reads after a remount
# remount_row SYSTEM LATENCY ROUND: on a fresh mount over an empty cache
# directory, the big file read once (dd) and the small files once (filling
# the cache); the mount unmounted, the same mount point mounted again on the
# same cache directory, and the same reads timed; the origin side of each
# counted from the access log, and korvmount's own counts from its
# .korvcache-stats after the second reads. LATENCY is 0, $latency_ms, or link
# ($latency_ms ms and $link_mbps MB/s).
remount_row() {
  local sys=$1 latency=$2 r=$3 name mnt cache log mark stats
  name=$sys-remount$latency-$r
  mnt=$bench_work/mnt/$name
  cache=$bench_work/cache/$name
  log=$(log_of "$sys")
  mark=$(log_mark "$log")
  mount_sys "$sys" "$mnt" "$latency" "$cache" "$bench_work/logs/$name-first.log"
  record remount_fill_"$latency" "$sys" "$r" mbps "$(dd_rate "$mnt/big.bin")"
  files_row remount_fill_small_"$latency" "$sys" "$mnt/small" "$r"
  log_settle "$log"
  origin_side remount_fill_"$latency" "$sys" "$r" "$log" "$mark"
  record remount_fill_"$latency" "$sys" "$r" cache_kib "$(cache_kib "$cache")"
  unmount_fs "$mnt"
  mount_sys "$sys" "$mnt" "$latency" "$cache" "$bench_work/logs/$name-again.log"
  mark=$(log_mark "$log")
  record remount_seq_"$latency" "$sys" "$r" mbps "$(dd_rate "$mnt/big.bin")"
  record remount_seq_"$latency" "$sys" "$r" read "$big_bytes"
  log_settle "$log"
  origin_side remount_seq_"$latency" "$sys" "$r" "$log" "$mark"
  record remount_seq_"$latency" "$sys" "$r" listings "$(log_listings "$log" "$mark")"
  mark=$(log_mark "$log")
  files_row remount_small_"$latency" "$sys" "$mnt/small" "$r"
  log_settle "$log"
  origin_side remount_small_"$latency" "$sys" "$r" "$log" "$mark"
  record remount_small_"$latency" "$sys" "$r" listings "$(log_listings "$log" "$mark")"
  if [ "$sys" = korv ]; then
    stats=$bench_work/logs/$name.stats
    cp "$mnt/.korvcache-stats" "$stats" || fail "no .korvcache-stats in $mnt"
    record remount_stats_"$latency" korv "$r" kept_found "$(jq -r .kept_bytes_found_at_start "$stats")"
    record remount_stats_"$latency" korv "$r" kept_served "$(jq -r .bytes_served_from_kept_cache "$stats")"
    record remount_stats_"$latency" korv "$r" stats_fetched "$(jq -r .bytes_fetched "$stats")"
    record remount_stats_"$latency" korv "$r" stats_requests "$(jq -r .origin_requests "$stats")"
  fi
  unmount_fs "$mnt"
  rm -rf "$cache" "$cache.davfs2.conf"
}

tool_rows() {
  local r latency sys order wsystems
  wsystems=(korv korvwb "${systems[@]:1}")
  say "writes and tools: $rounds rounds, origin at 0 ms and at $latency_ms ms (each row on a fresh mount)"
  for ((r = 1; r <= rounds; r++)); do
    for latency in 0 "$latency_ms"; do
      read -r -a order <<< "$(rotated $((r - 1)) "${wsystems[@]}")"
      if want tools; then
        for sys in "${order[@]}"; do write_side "$sys" "$latency" "$r"; done
      fi
      read -r -a order <<< "$(rotated $((r - 1)) "${systems[@]}")"
      if want reads; then
        for sys in "${order[@]}"; do read_side "$sys" "$latency" "$r"; done
      fi
      say "  round $r, $latency ms: done"
    done
  done
}

if [ $use_fuse -eq 1 ]; then
  systems=(korv)
  [ $use_rclone -ne 1 ] || systems+=(rclone)
  [ $use_rclone -ne 0 ] || say "rclone is not installed: its rows are left out (make bench installs it)"
  [ $use_rclone -ne 2 ] || say "rclone rows left out: BENCH_PEERS leaves it out"
  [ $use_davfs -eq 0 ] || systems+=(davfs)
  [ $use_davfs -eq 1 ] || say "davfs2 rows left out: $why_no_davfs"

  [ -z "${BENCH_ONLY:-}" ] || say "BENCH_ONLY: only the rows of $BENCH_ONLY"
  if want seq; then
  say "sequential reads of the 1 GiB file, cold: $rounds rounds, origin at 0 ms and at $latency_ms ms"
  for ((r = 1; r <= rounds; r++)); do
    read -r -a order <<< "$(rotated $((r - 1)) "${systems[@]}")"
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
      log=$(log_of "$sys")
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
          log=$(log_of "$sys")
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
  fi

  if want random; then
  say "random reads, cold: $random_cold_ops reads per row, each row on a fresh mount"
  for block in 4096 65536; do
    for threads in 1 4 16; do
      base=rand_cold_${block}_$threads
      for sys in "${systems[@]}"; do
        mnt=$bench_work/mnt/$sys-$base
        cache=$bench_work/cache/$sys-$base
        log=$(log_of "$sys")
        mark=$(log_mark "$log")
        mount_sys "$sys" "$mnt" 0 "$cache" "$bench_work/logs/$sys-$base.log"
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
  fi

  if want small; then
  say "$small_count files of 256 KiB, cold and warm, origin at 0 ms and at $latency_ms ms"
  files_row small_warm_0 pt "$bench_work/mnt/pt/small"
  for latency in 0 "$latency_ms"; do
    url=$origin0
    [ "$latency" -eq 0 ] || url=$origin5
    record small_cold_"$latency" curl 1 fps "$(curl_files "$url")"
    for sys in "${systems[@]}"; do
      mnt=$bench_work/mnt/$sys-small$latency
      cache=$bench_work/cache/$sys-small$latency
      log=$(log_of "$sys")
      mark=$(log_mark "$log")
      mount_sys "$sys" "$mnt" "$latency" "$cache" "$bench_work/logs/$sys-small$latency.log"
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
  fi

  if want remount; then
    say "reads after a remount on the same cache directory: $rounds rounds, origin at 0 ms, at $latency_ms ms" \
        "and at $latency_ms ms with $link_mbps MB/s"
    for ((r = 1; r <= rounds; r++)); do
      read -r -a order <<< "$(rotated $((r - 1)) "${systems[@]}")"
      for latency in 0 "$latency_ms" link; do
        for sys in "${order[@]}"; do remount_row "$sys" "$latency" "$r"; done
      done
      say "  round $r of $rounds done"
    done
  fi
  if [ $use_tools = 1 ]; then
    tool_rows
  fi
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
link_name() { if [ "$1" = link ]; then echo "$latency_ms ms $link_mbps MB/s"; else echo "$1 ms"; fi; }
mib_mixed=$(awk -v b="${mixed_bytes:-0}" 'BEGIN { printf "%.0f", b / 1048576 }')
# value BASE SYSTEM METRIC: the median, or "failed" where a round failed and
# none succeeded, or n/a.
value() {
  local v
  v=$(median "$1" "$2" "$3")
  if [ -n "$v" ]; then
    fmt "$v" "${4:-0}"
    [ -z "$(median "$1" "$2" failed)" ] || printf '(+failed)'
  elif [ -n "$(median "$1" "$2" failed)" ]; then printf 'failed'
  else printf 'n/a'; fi
}
# speed BASE SYS_A SYS_B METRIC: A's speed over B's, paired round by round
# (for seconds, B's time over A's), with the range over the rounds; "failed"
# where B (or A) failed.
speed() {
  local r
  case $4 in
    secs | origin_secs) r=$(ratio "$1" "$3" "$2" "$4" 1) ;;
    *) r=$(ratio "$1" "$2" "$3" "$4" 1) ;;
  esac
  if [ -n "$r" ]; then printf '%s' "$r"
  elif [ -n "$(median "$1" "$3" failed)" ]; then printf '%s failed' "${3/davfs/davfs2}"
  elif [ -n "$(median "$1" "$2" failed)" ]; then printf '%s failed' "${2/korv/korvmount}"
  else printf 'n/a'; fi
}
{
  echo
  echo "Client benchmark, one run, side by side ($(nproc) cores; load average at the start $load_at_start," \
    "at the end $(cut -d' ' -f1-3 /proc/loadavg))"
  echo "figures are medians over the rounds; ratios are paired round by round, range over the rounds in brackets;"
  echo "a ratio is korvmount's speed over the peer's: above 1 korvmount is ahead (for times, the peer's time over korvmount's)"
  fmtrow='%-34s %-7s %9s %9s %9s  %-18s %-18s  %-24s %9s %s\n'
  measured() { awk -F'\t' -v b="$1" '$1 == b { found = 1 } END { exit !found }' "$results"; }
  line() { # LABEL UNIT BASE METRIC [REF_SYS REF_LABEL [KORV_SYS]]; rows not run are left out
    measured "$3" || return 0
    local ref_value="" ref_ratio="" k=${7:-korv} d=2
    [ "$4" = secs ] || [ "$4" = origin_secs ] || d=0
    if [ -n "${5:-}" ]; then
      ref_value=$(fmt "$(median "$3" "$5" "$4")")
      ref_ratio=$(ratio "$3" korv "$5" "$4" 1)
    fi
    printf "$fmtrow" "$1" "$2" "$(value "$3" "$k" "$4" $d)" "$(value "$3" rclone "$4" $d)" "$(value "$3" davfs "$4" $d)" \
      "$(speed "$3" "$k" rclone "$4")" "$(speed "$3" "$k" davfs "$4")" "${6:-}" "$ref_value" "$ref_ratio"
  }
  if [ $use_fuse -eq 1 ]; then
    echo "korv = korvmount (default settings, --limit 4G); rclone = rclone mount :webdav: --webdav-vendor other" \
      "${rclone_flags[*]} --cache-dir DIR; davfs = davfs2 (mount -t davfs; use_locks 0, cache_size 4096, buf_size 256)"
    echo
    printf "$fmtrow" row unit korv rclone davfs korv/rclone korv/davfs reference ref korv/ref
    line "seq 1 GiB warm, dd bs=1M" MB/s seq_warm mbps pt "pass-through FUSE"
    printf "$fmtrow" "" "" "" "" "" "" "" "dd from the page cache" \
      "$(fmt "$(median seq_warm page mbps)")" "$(ratio seq_warm korv page mbps 1)"
    line "seq 1 GiB cold, 0 ms" MB/s seq_cold_0 mbps curl "curl, same origin"
    line "seq 1 GiB cold, $latency_ms ms" MB/s seq_cold_$latency_ms mbps curl "curl, same proxy"
    for temp in cold warm; do
      for block in 4096 65536; do
        for threads in 1 4 16; do
          if [ $temp = warm ]; then
            line "random $((block / 1024)) KiB x$threads $temp" ops/s rand_${temp}_${block}_$threads ops pt "pass-through FUSE"
          else
            line "random $((block / 1024)) KiB x$threads $temp" ops/s rand_${temp}_${block}_$threads ops
          fi
        done
      done
    done
    for latency in 0 "$latency_ms"; do
      line "200 x 256 KiB cold, $latency ms" files/s small_cold_$latency fps curl "curl, one connection"
      if [ "$latency" -eq 0 ]; then
        line "200 x 256 KiB warm, $latency ms" files/s small_warm_$latency fps pt "pass-through FUSE"
      else
        line "200 x 256 KiB warm, $latency ms" files/s small_warm_$latency fps
      fi
    done
    for latency in 0 "$latency_ms" link; do
      lname=$(link_name "$latency")
      line "seq 1 GiB cold (fill), $lname" MB/s remount_fill_$latency mbps
      line "200 x 256 KiB cold (fill), $lname" files/s remount_fill_small_$latency fps
      line "seq 1 GiB after remount, $lname" MB/s remount_seq_$latency mbps
      line "200 files after remount, $lname" files/s remount_small_$latency fps
    done
    if [ $use_tools = 1 ]; then
      # with_write_back LABEL BASE FIELD: the row, then korvmount --write-back 5's.
      with_write_back() {
        line "$1" s "$2" "$3"
        line "  korvmount --write-back 5" s "$2" "$3" "" "" korvwb
      }
      for latency in 0 "$latency_ms"; do
        with_write_back "write 256 MiB, to close, $latency ms" write_$latency secs
        with_write_back "write 256 MiB, to origin, $latency ms" write_$latency origin_secs
        with_write_back "git clone 2,000 files, $latency ms" git_$latency secs
        with_write_back "  until on the origin" git_$latency origin_secs
        with_write_back "tar x 2,000 files, $latency ms" tar_$latency secs
        with_write_back "  until on the origin" tar_$latency origin_secs
        line "rsync -a out, cold, $latency ms" s rsync_$latency secs
        line "ls -lR, cold, $latency ms" s ls_$latency secs
        line "cp -r mixed tree out, $latency ms" s cp_$latency secs
      done
    fi
    echo
    echo "Origin traffic and resources (korv | rclone | davfs): origin bytes per byte read, origin requests, cache"
    echo "directory after the row (du, MiB), peak resident memory of the mount process (VmHWM, MiB)"
    printf '%-30s %22s %22s %22s %22s %s\n' row "fetched/read" requests "cache MiB" "VmHWM MiB" "bound"
    usage() { # LABEL BASE [BOUND]
      measured "$2" || return 0
      printf '%-30s %22s %22s %22s %22s %s\n' "$1" \
        "$(per_read "$2" korv) | $(per_read "$2" rclone) | $(per_read "$2" davfs)" \
        "$(fmt "$(median "$2" korv requests)") | $(fmt "$(median "$2" rclone requests)") | $(fmt "$(median "$2" davfs requests)")" \
        "$(mib "$(median "$2" korv cache_kib)") | $(mib "$(median "$2" rclone cache_kib)") | $(mib "$(median "$2" davfs cache_kib)")" \
        "$(mib "$(median "$2" korv hwm_kib)") | $(mib "$(median "$2" rclone hwm_kib)") | $(mib "$(median "$2" davfs hwm_kib)")" "${3:-}"
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
    for latency in 0 "$latency_ms" link; do
      lname=$(link_name "$latency")
      usage "fill (seq + files), $lname" remount_fill_$latency
      usage "seq after remount, $lname" remount_seq_$latency
      usage "files after remount, $lname" remount_small_$latency
    done
    if measured remount_stats_0 || measured remount_stats_$latency_ms || measured remount_stats_link; then
      echo
      echo "korvmount's .korvcache-stats after the reads after the remount (medians over the rounds):"
      printf '  %-22s %28s %30s %16s %16s\n' link kept_bytes_found_at_start bytes_served_from_kept_cache \
        bytes_fetched origin_requests
      for latency in 0 "$latency_ms" link; do
        measured remount_stats_$latency || continue
        printf '  %-22s %28s %30s %16s %16s\n' "$(link_name "$latency")" \
          "$(fmt "$(median remount_stats_$latency korv kept_found)")" \
          "$(fmt "$(median remount_stats_$latency korv kept_served)")" \
          "$(fmt "$(median remount_stats_$latency korv stats_fetched)")" \
          "$(fmt "$(median remount_stats_$latency korv stats_requests)")"
      done
    fi
    if [ $use_tools = 1 ]; then
      for latency in 0 "$latency_ms"; do
        usage "writes, git, tar: $latency ms" write_$latency "(requests only)"
        usage "rsync -a out, $latency ms" rsync_$latency
        usage "ls -lR, $latency ms" ls_$latency
        usage "cp -r mixed out, $latency ms" cp_$latency "mixed tree: $mib_mixed MiB"
      done
    fi

    echo
    echo "Targets"
    verdict() { # LABEL VALUE LIMIT (at least); VALUE may be a ratio with its range, or "... failed"
      if [ -z "$2" ] || [ "$2" = n/a ]; then [ -n "${BENCH_ONLY:-}" ] || printf '  %-58s n/a\n' "$1"; return; fi
      case $2 in *failed*) printf '  %-58s %s\n' "$1" "$2"; return ;; esac
      set -- "$1" "${2%% *}" "$3"
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
    for peer in rclone davfs; do
      [[ " ${systems[*]} " == *" $peer "* ]] || continue
      for latency in 0 "$latency_ms" link; do
        measured remount_seq_$latency || continue
        verdict "seq after remount, $(link_name "$latency"), korv / $peer" "$(speed remount_seq_$latency korv $peer mbps)" \
          "$([ $peer = rclone ] && echo 1.5 || echo 1.0)"
        verdict "files after remount, $(link_name "$latency"), korv / $peer" \
          "$(speed remount_small_$latency korv $peer fps)" "$([ $peer = rclone ] && echo 1.5 || echo 1.0)"
      done
      for latency in 0 "$latency_ms"; do
        verdict "small files cold at $latency ms, korv / $peer" "$(speed small_cold_$latency korv $peer fps)" \
          "$([ $peer = rclone ] && echo 1.5 || echo 1.0)"
        verdict "small files warm at $latency ms, korv / $peer" "$(speed small_warm_$latency korv $peer fps)" \
          "$([ $peer = rclone ] && [ "$latency" -ne 0 ] && echo 1.5 || echo 1.0)"
      done
      if [ $use_tools = 1 ]; then
        for latency in 0 "$latency_ms"; do
          verdict "write 256 MiB to close at $latency ms, korv / $peer (ahead)" "$(speed write_$latency korv $peer secs)" 1.0
          verdict "write 256 MiB to origin at $latency ms, korv / $peer (ahead)" \
            "$(speed write_$latency korv $peer origin_secs)" 1.0
          for row in git tar rsync ls; do
            verdict "$row at $latency ms, korv / $peer (ahead)" "$(speed ${row}_$latency korv $peer secs)" 1.0
          done
          verdict "cp -r mixed tree at $latency ms, korv / $peer" "$(speed cp_$latency korv $peer secs)" \
            "$([ $peer = rclone ] && echo 1.5 || echo 1.0)"
        done
      fi
    done
    for latency in 0 "$latency_ms" link; do
      for part in seq small; do
        measured remount_${part}_$latency || continue
        awk -F'\t' -v b=remount_${part}_$latency -v l="korv origin bytes for the $part reads after remount, $(link_name "$latency")" '
          $1 == b && $2 == "korv" && $4 == "fetched" { n++; s += $5; if ($5 > m) m = $5 }
          END { if (m == 0) printf "  %-58s 0 in %d rounds  met (target 0)\n", l, n
                else printf "  %-58s up to %.0f bytes (%d rounds)  MISSED (target 0)\n", l, m, n }' "$results"
      done
      measured remount_stats_$latency || continue
      awk -F'\t' -v b=remount_stats_$latency -v l="korv .korvcache-stats bytes_fetched after remount, $(link_name "$latency")" '
        $1 == b && $4 == "stats_fetched" { n++; if ($5 > m) m = $5 }
        END { if (m == 0) printf "  %-58s 0 in %d rounds  met (target 0)\n", l, n
              else printf "  %-58s up to %.0f bytes (%d rounds)  MISSED (target 0)\n", l, m, n }' "$results"
    done
    if [ $use_tools = 1 ]; then
      for latency in 0 "$latency_ms"; do
        c=$(median cp_$latency korv cache_kib)
        [ -z "$c" ] || awk -v l="korv cache directory after cp -r at $latency ms / bytes it holds" -v c="$c" -v b="$mixed_bytes" 'BEGIN {
          v = c * 1024 / b
          if (v <= 1.1) printf "  %-58s %.3f  met (target <= 1.1)\n", l, v
          else printf "  %-58s %.3f  MISSED by %.0f%% (target <= 1.1)\n", l, v, (v - 1.1) / 1.1 * 100 }'
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
for sys in korv rclone davfs; do cp "$(log_of $sys)" "$out_dir/origin-$sys.log"; done
cp "$bench_work"/logs/*.stats "$out_dir/" 2> /dev/null || true
echo "(kept in $out_dir)"
