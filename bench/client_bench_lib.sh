# shellcheck shell=bash disable=SC2154
# Sourced by client_bench.sh: starting and stopping what the client benchmark
# runs (nginx, the delay proxies, the FUSE mounts, davfs2's mounts), each by
# its own PID, and the trap that unmounts and stops all of it however the
# script ends (an error, Ctrl-C, or the time limit of `make bench`). The
# program paths ($korvmount, ...) and rclone_flags are the caller's.

# shellcheck source=../scripts/nginx_webdav.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/nginx_webdav.sh"

bench_work=""           # scratch directory, removed at the end
bench_pids=()           # every process started, stopped in reverse order
declare -A mount_pid=() # mount point -> PID of the process serving it
declare -A davfs_mount=() # mount points served by davfs2 (unmounted with umount)
last_hwm_kib=0          # VmHWM of the last process unmount_fs stopped

bench_cleanup() {
  local status=$?
  trap - EXIT INT TERM
  local mnt
  for mnt in "${!mount_pid[@]}" "${!davfs_mount[@]}"; do unmount_fs "$mnt"; done
  local i
  for ((i = ${#bench_pids[@]} - 1; i >= 0; i--)); do stop_pid "${bench_pids[i]}" 3; done
  if [ -n "$bench_work" ] && [ -d "$bench_work" ]; then
    # A mount that would not go away must not be emptied through rm.
    if grep -q " $bench_work/" /proc/self/mountinfo; then
      echo "client_bench: something is still mounted under $bench_work; left in place" >&2
    else
      rm -rf "$bench_work"
    fi
  fi
  [ $status -eq 0 ] || echo "client_bench: ended with status $status; everything it started is stopped" >&2
  exit $status
}

bench_traps() {
  trap bench_cleanup EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
}

# stop_pid PID [GRACE_SECONDS]: TERM, then KILL once the grace has passed.
stop_pid() {
  local pid=$1 grace=${2:-5} i
  if kill -0 "$pid" 2> /dev/null; then
    kill -TERM "$pid" 2> /dev/null || true
    for ((i = 0; i < grace * 20; i++)); do
      kill -0 "$pid" 2> /dev/null || break
      sleep 0.05
    done
    kill -KILL "$pid" 2> /dev/null || true
  fi
  wait "$pid" 2> /dev/null || true
}

is_mounted() { awk -v m="$1" '$5 == m { found = 1 } END { exit !found }' /proc/self/mountinfo; }

# wait_mounted MOUNTPOINT PID: true once mounted, false if the process ended
# or ten seconds passed.
wait_mounted() {
  local i
  for ((i = 0; i < 200; i++)); do
    is_mounted "$1" && return 0
    kill -0 "$2" 2> /dev/null || return 1
    sleep 0.05
  done
  return 1
}

# started_fs MOUNTPOINT PID LOG: registers a file system process started in
# the background and waits for its mount.
started_fs() {
  bench_pids+=("$2")
  mount_pid["$1"]=$2
  if ! wait_mounted "$1" "$2"; then
    echo "client_bench: mounting $1 failed:" >&2
    tail -n 5 "$3" >&2
    unmount_fs "$1"
    return 1
  fi
}

# mount_korv MOUNTPOINT ORIGIN_URL CACHE_DIR LOG [KORVMOUNT_OPTIONS...]
mount_korv() {
  local mnt=$1 url=$2 cache=$3 log=$4
  shift 4
  mkdir -p "$mnt" "$cache"
  "$korvmount" "$url" "$mnt" --foreground --cache-dir "$cache" --limit 4G "$@" 2> "$log" &
  started_fs "$mnt" $! "$log"
}

# mount_rclone MOUNTPOINT ORIGIN_URL CACHE_DIR LOG: the origin as a WebDAV
# remote (vendor "other": plain RFC 4918, as nginx's dav modules speak it).
mount_rclone() {
  mkdir -p "$1" "$3"
  rclone mount :webdav: "$1" --webdav-url "$2" --webdav-vendor other "${rclone_flags[@]}" --cache-dir "$3" \
    --config "$bench_work/rclone.conf" 2> "$4" &
  started_fs "$1" $! "$4"
}

# mount_davfs MOUNTPOINT ORIGIN_URL CACHE_DIR LOG: `mount -t davfs` (as root)
# with a configuration file of its own next to CACHE_DIR: no locks, the cache
# in CACHE_DIR with the limit korvmount has (4 GiB), no credentials (nginx asks
# for none; ask_auth 0 and an empty standard input keep it from prompting),
# and a FUSE buffer of 256 KiB: with davfs2's default of 16 KiB this kernel's
# directory reads (32 KiB and more) are refused with EINVAL, and ls fails.
# The daemon runs as the user davfs2, which must reach CACHE_DIR.
mount_davfs() {
  local mnt=$1 url=$2 cache=$3 log=$4 conf=$3.davfs2.conf pidfile pid=""
  mkdir -p "$mnt" "$cache"
  chmod 755 "$bench_work" "$(dirname "$cache")"
  chown root:davfs2 "$cache"
  chmod 775 "$cache"
  cat > "$conf" << CONF
use_locks 0
ask_auth 0
cache_dir $cache
cache_size 4096
buf_size 256
CONF
  if ! mount -t davfs "$url" "$mnt" -o "conf=$conf" < /dev/null > "$log" 2>&1; then
    echo "client_bench: mounting $mnt with davfs2 failed:" >&2
    tail -n 5 "$log" >&2
    return 1
  fi
  davfs_mount["$mnt"]=1
  # The daemon's PID (for its peak memory), from the PID file it writes
  # once it has mounted.
  local i
  for ((i = 0; i < 40; i++)); do
    for pidfile in /var/run/mount.davfs/*.pid; do
      [ -f "$pidfile" ] || continue
      pid=$(head -n 1 "$pidfile")
      tr '\0' ' ' < "/proc/$pid/cmdline" 2> /dev/null | grep -qF -- " $mnt " && break
      pid=""
    done
    [ -z "$pid" ] || break
    sleep 0.05
  done
  [ -z "$pid" ] || mount_pid["$mnt"]=$pid
  is_mounted "$mnt"
}

# mount_passthrough MOUNTPOINT SOURCE_DIR LOG
mount_passthrough() {
  mkdir -p "$1"
  "$passthrough_fs" "$2" "$1" 2> "$3" &
  started_fs "$1" $! "$3"
}

# unmount_fs MOUNTPOINT: reads the process's peak memory into last_hwm_kib,
# unmounts, and waits for the process to end (KILL and a lazy unmount if it
# does not).
unmount_fs() {
  local mnt=$1 pid=${mount_pid[$1]:-} i
  last_hwm_kib=0
  if [ -n "$pid" ]; then
    last_hwm_kib=$(awk '/^VmHWM:/ { print $2 }' "/proc/$pid/status" 2> /dev/null || true)
    last_hwm_kib=${last_hwm_kib:-0}
  fi
  if [ -n "${davfs_mount[$mnt]:-}" ]; then
    # umount.davfs waits while davfs2 uploads what it still holds.
    is_mounted "$mnt" && { timeout 300 umount "$mnt" > /dev/null 2>&1 || true; }
    unset "davfs_mount[$mnt]"
  elif is_mounted "$mnt"; then
    timeout 20 fusermount3 -u "$mnt" 2> /dev/null || timeout 20 umount "$mnt" 2> /dev/null || true
  fi
  if [ -n "$pid" ]; then
    for ((i = 0; i < 200; i++)); do
      kill -0 "$pid" 2> /dev/null || break
      sleep 0.05
    done
    stop_pid "$pid" 2
  fi
  if is_mounted "$mnt"; then umount -l "$mnt" 2> /dev/null || fusermount3 -uz "$mnt" 2> /dev/null || true; fi
  unset "mount_pid[$mnt]"
}

# start_nginx DIR: nginx on three free loopback ports over DIR/root, one per
# client (korv_port, rclone_port, davfs_port), each a WebDAV server as in
# scripts/demo.sh (PUT DELETE MKCOL COPY MOVE, and PROPFIND from dav-ext;
# JSON autoindex too) with its own access log of "method, uri, range, status,
# body bytes, end time, duration" (the request timeline of a row can be read
# from it).
start_nginx() {
  local dir=$1 pid name port servers
  mkdir -p "$dir/logs" "$dir/tmp"
  for _ in $(seq 20); do
    korv_port=$((20000 + RANDOM % 40000))
    rclone_port=$((korv_port + 1))
    davfs_port=$((korv_port + 2))
    servers=""
    for name in korv rclone davfs; do
      port=${name}_port
      servers+="
$(webdav_server "${!port}" "$dir/root" "access_log $dir/logs/$name.log bench;")"
    done
    # Run with -c, nginx reads no modules-enabled: the configuration loads
    # the dav-ext module itself.
    cat > "$dir/nginx.conf" << CONF
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
daemon off;
master_process off;
worker_processes 1;
pid $dir/nginx.pid;
error_log $dir/logs/error.log;
events { worker_connections 1024; }
http {
  default_type application/octet-stream;
  log_format bench "\$request_method\t\$uri\t\$http_range\t\$status\t\$body_bytes_sent\t\$msec\t\$request_time";
  client_body_temp_path $dir/tmp/body;
  proxy_temp_path $dir/tmp/proxy;
  fastcgi_temp_path $dir/tmp/fastcgi;
  uwsgi_temp_path $dir/tmp/uwsgi;
  scgi_temp_path $dir/tmp/scgi;
  keepalive_requests 100000;$servers
}
CONF
    /usr/sbin/nginx -p "$dir/" -c "$dir/nginx.conf" 2>> "$dir/logs/nginx-start.log" &
    pid=$!
    local i ok
    for ((i = 0; i < 100; i++)); do
      ok=1
      for port in "$korv_port" "$rclone_port" "$davfs_port"; do
        curl -s -o /dev/null "http://127.0.0.1:$port/" || ok=0
      done
      [ $ok = 0 ] || break
      kill -0 "$pid" 2> /dev/null || break
      sleep 0.05
    done
    if kill -0 "$pid" 2> /dev/null && [ $ok = 1 ]; then
      bench_pids+=("$pid")
      return 0
    fi
    stop_pid "$pid" 1
  done
  cat "$dir/logs/nginx-start.log" >&2
  return 1
}

# start_proxy TARGET_PORT DELAY_MS OUTFILE [RATE_MBPS]: a delay_proxy in
# front of TARGET_PORT (its answers paced to RATE_MBPS if given); sets
# proxy_port.
start_proxy() {
  "$delay_proxy" "$1" "$2" ${4:+"$4"} > "$3" 2>&1 &
  local pid=$! i
  bench_pids+=("$pid")
  proxy_port=""
  for ((i = 0; i < 100; i++)); do
    proxy_port=$(sed -n 's/^port=//p' "$3" 2> /dev/null)
    [ -n "$proxy_port" ] && return 0
    kill -0 "$pid" 2> /dev/null || break
    sleep 0.05
  done
  echo "client_bench: the delay proxy did not start: $(cat "$3")" >&2
  return 1
}
