#!/usr/bin/env bash
# Installs the Debian packages the build, tests and benchmarks need, and only
# those that are missing, so that a machine that has them all stays offline.
# With --bench, also what only the client benchmark (`make bench`) runs;
# with --fuzz, also what only the fuzzers (`make fuzz`) are built with.
# clang (Debian 12: clang 14) is in the base list: `make test` checks the lock
# annotations with it. rsync and git: the end-to-end tests run them (and sed,
# tar, cp, mv) inside a mount.
set -euo pipefail

packages=(
  g++ clang cmake ninja-build make pkg-config
  libjsoncpp-dev uuid-dev libxxhash-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libfuse3-dev fuse3 libcurl4-openssl-dev libxml2-dev nginx libnginx-mod-http-dav-ext curl
  rsync git
)
# rclone and davfs2: the client benchmark's peers (`rclone mount` of a
# :webdav: remote, `mount -t davfs`). davfs2's debconf question (whether
# unprivileged users may mount) is answered "no" ahead: the benchmark mounts
# as root. jq reads korvmount's statistics file in the remount rows.
bench_packages=(rclone davfs2 jq)
if [ "${1:-}" = "--bench" ]; then
  packages+=("${bench_packages[@]}")
fi
# clang's libFuzzer and sanitizer runtimes.
fuzz_packages=(libclang-rt-14-dev)
if [ "${1:-}" = "--fuzz" ]; then
  packages+=("${fuzz_packages[@]}")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
if [[ " ${missing[*]} " == *" davfs2 "* ]]; then
  echo "davfs2 davfs2/suid_file boolean false" | "${sudo_cmd[@]}" debconf-set-selections
fi
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
