#!/usr/bin/env bash
# The korvcache demonstration: a sample origin served by nginx on loopback,
# mounted with korvmount (korvcat where FUSE cannot be used), read cold and
# warm, checked against the origin, written through, and torn down again.
# Usage: scripts/demo.sh BUILD_DIR
set -euo pipefail

# shellcheck source=nginx_webdav.sh
source "$(dirname "${BASH_SOURCE[0]}")/nginx_webdav.sh"

build=${1:-build}
build=$(cd "$build" && pwd)
korvmount=$build/client/bin/korvmount
korvcat=$build/client/bin/korvcat
for program in "$korvmount" "$korvcat" /usr/sbin/nginx curl; do
  command -v "$program" > /dev/null || { echo "demo: $program is missing (run make demo)" >&2; exit 1; }
done

work=$(mktemp -d /tmp/korv-demo.XXXXXX)
nginx_pid=""
mount_pid=""
mounted=""

cleanup() {
  local status=$?
  trap - EXIT INT TERM
  if [ -n "$mounted" ]; then
    umount "$work/mnt" 2> /dev/null || fusermount3 -u "$work/mnt" 2> /dev/null || true
  fi
  if [ -n "$mount_pid" ]; then
    for _ in $(seq 100); do kill -0 "$mount_pid" 2> /dev/null || break; sleep 0.1; done
    kill -KILL "$mount_pid" 2> /dev/null || true
    umount -l "$work/mnt" 2> /dev/null || true
  fi
  if [ -n "$nginx_pid" ]; then
    kill "$nginx_pid" 2> /dev/null || true
    wait "$nginx_pid" 2> /dev/null || true
  fi
  rm -rf "$work"
  [ $status -eq 0 ] || echo "demo: failed (status $status); everything it started is stopped and removed" >&2
  exit $status
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

now() { date +%s.%N; }
rate() { awk -v bytes="$1" -v start="$2" -v end="$3" 'BEGIN { printf "%.0f", bytes / 1e6 / (end - start) }'; }
stat_of() { grep -o "\"$2\" : [0-9]*" "$1" | grep -o '[0-9]*$'; }

echo "== making the sample origin in $work/root (a 512 MiB file and 200 files of 256 KiB)"
mkdir -p "$work/root/small" "$work/logs" "$work/tmp" "$work/mnt" "$work/cache"
head -c $((512 << 20)) /dev/urandom > "$work/root/big.bin"
head -c $((200 * 256 << 10)) /dev/urandom > "$work/all-small"
split -b $((256 << 10)) -a 3 -d "$work/all-small" "$work/root/small/f"
rm "$work/all-small"
origin_sum=$(sha256sum "$work/root/big.bin" | cut -d' ' -f1)

echo "== starting nginx on loopback"
for attempt in $(seq 20); do
  port=$((20000 + RANDOM % 40000))
  # Run with -c, nginx reads no modules-enabled: the configuration loads
  # the dav-ext module (PROPFIND, the listings korvmount asks for) itself.
  cat > "$work/nginx.conf" <<CONF
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
daemon off;
master_process off;
worker_processes 1;
pid $work/nginx.pid;
error_log $work/logs/error.log;
events { worker_connections 256; }
http {
  access_log $work/logs/access.log;
  client_body_temp_path $work/tmp/body;
  proxy_temp_path $work/tmp/proxy;
  fastcgi_temp_path $work/tmp/fastcgi;
  uwsgi_temp_path $work/tmp/uwsgi;
  scgi_temp_path $work/tmp/scgi;
$(webdav_server "$port" "$work/root")
}
CONF
  /usr/sbin/nginx -p "$work/" -c "$work/nginx.conf" 2>> "$work/logs/start.log" &
  nginx_pid=$!
  for _ in $(seq 100); do
    curl -s -o /dev/null "http://127.0.0.1:$port/" && break
    kill -0 "$nginx_pid" 2> /dev/null || break
    sleep 0.05
  done
  if curl -s -o /dev/null "http://127.0.0.1:$port/"; then break; fi
  wait "$nginx_pid" 2> /dev/null || true
  nginx_pid=""
done
[ -n "$nginx_pid" ] || { cat "$work/logs/start.log" >&2; echo "demo: nginx did not start" >&2; exit 1; }
origin="http://127.0.0.1:$port"
echo "   origin $origin (nginx pid $nginx_pid)"

use_fuse=1
if [ ! -c /dev/fuse ] || ! (exec 3<> /dev/fuse) 2> /dev/null; then
  use_fuse=0
  why="/dev/fuse cannot be opened"
else
  "$korvmount" "$origin" "$work/mnt" --foreground --cache-dir "$work/cache" --limit 2G \
    2> "$work/logs/korvmount.log" &
  mount_pid=$!
  for _ in $(seq 200); do
    grep -q " $work/mnt " /proc/self/mountinfo && { mounted=1; break; }
    kill -0 "$mount_pid" 2> /dev/null || break
    sleep 0.05
  done
  if [ -z "$mounted" ]; then
    use_fuse=0
    why=$(tail -n 3 "$work/logs/korvmount.log")
    wait "$mount_pid" 2> /dev/null || true
    mount_pid=""
  fi
fi

big=$((512 << 20))
if [ $use_fuse -eq 1 ]; then
  echo "== mounted at $work/mnt (korvmount pid $mount_pid)"
  start=$(now); dd if="$work/mnt/big.bin" of=/dev/null bs=1M status=none; end=$(now)
  cold=$(rate $big "$start" "$end")
  start=$(now); dd if="$work/mnt/big.bin" of=/dev/null bs=1M status=none; end=$(now)
  warm=$(rate $big "$start" "$end")
  mount_sum=$(sha256sum "$work/mnt/big.bin" | cut -d' ' -f1)
  small=$((200 * 256 << 10))
  start=$(now); cat "$work"/mnt/small/* > /dev/null; end=$(now)
  small_cold=$(rate $small "$start" "$end")
  start=$(now); cat "$work"/mnt/small/* > /dev/null; end=$(now)
  small_warm=$(rate $small "$start" "$end")
  echo "== writing a file through the mount"
  head -c $((8 << 20)) /dev/urandom > "$work/upload.bin"
  cp "$work/upload.bin" "$work/mnt/uploaded.bin"
  curl -s -o "$work/downloaded.bin" "$origin/uploaded.bin"
  cmp -s "$work/upload.bin" "$work/downloaded.bin" || { echo "demo: the uploaded file differs on the origin" >&2; exit 1; }
  write_check="8 MiB written, read back from the origin: identical"
  echo "== a directory made, a file renamed into it, another deleted, through the mount"
  mkdir "$work/mnt/made"
  mv "$work/mnt/uploaded.bin" "$work/mnt/made/renamed.bin"
  rm "$work/mnt/small/f000"
  [ -d "$work/root/made" ] && cmp -s "$work/upload.bin" "$work/root/made/renamed.bin" &&
    [ ! -e "$work/root/uploaded.bin" ] && [ ! -e "$work/root/small/f000" ] ||
    { echo "demo: the origin does not show the mkdir, rename and delete" >&2; exit 1; }
  names_check="mkdir, mv and rm through the mount: the origin shows all three"
  cp "$work/mnt/.korvcache-stats" "$work/stats.json"
else
  echo "== FUSE cannot be used here ($why): reading with korvcat instead"
  start=$(now); "$korvcat" "$origin/big.bin" --cache-dir "$work/cache" > /dev/null; end=$(now)
  cold=$(rate $big "$start" "$end")
  warm="n/a"
  small_cold="n/a"
  small_warm="n/a"
  mount_sum=$("$korvcat" "$origin/big.bin" --cache-dir "$work/cache" | sha256sum | cut -d' ' -f1)
  write_check="skipped (needs the mount)"
  names_check="skipped (needs the mount)"
  echo '{}' > "$work/stats.json"
fi

[ "$mount_sum" = "$origin_sum" ] || { echo "demo: SHA-256 mismatch: $mount_sum, origin $origin_sum" >&2; exit 1; }
requests=$(grep -c '"GET ' "$work/logs/access.log" || true)
fetched=$(stat_of "$work/stats.json" bytes_fetched || echo "n/a")
cache_size=$(du -sb "$work/cache" | cut -f1)

echo
echo "korvcache demo: $origin through $([ $use_fuse -eq 1 ] && echo korvmount || echo korvcat)"
printf '  %-34s %s\n' "big.bin (512 MiB) cold" "$cold MB/s" \
  "big.bin warm" "$warm MB/s" \
  "200 files of 256 KiB cold" "$small_cold MB/s" \
  "200 files of 256 KiB warm" "$small_warm MB/s" \
  "SHA-256 of big.bin" "matches the origin ($origin_sum)" \
  "write through the mount" "$write_check" \
  "names through the mount" "$names_check" \
  "origin GET requests (nginx log)" "$requests" \
  "bytes fetched from the origin" "$fetched" \
  "cache directory size" "$cache_size bytes"
