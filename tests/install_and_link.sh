#!/usr/bin/env bash
# Installs the library into a scratch prefix, builds a client program against
# the installed header and library only, runs it, and checks that the shared
# library exports the public surface and hides the internals.
set -euo pipefail
build_dir=$1 cxx=$2 source=$3

prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libkorvcache.so' | head -n 1)")

"$cxx" -std=c++17 -Wall -Wextra -Werror -I"$prefix/include" "$source" \
  -L"$libdir" -lkorvcache -Wl,-rpath,"$libdir" -o "$prefix/client"
mkdir -p "$prefix/cache"
"$prefix/client" "$prefix/cache"

exported=$(nm -D --defined-only "$libdir/libkorvcache.so")
for symbol in InitCache ReleaseCache Cache_BindLogger Cache_UnbindLogger Cache_BindAsyncQ Cache_UnbindAsyncQ QueueAsync; do
  grep -qw "$symbol" <<<"$exported" || { echo "missing export: $symbol"; exit 1; }
done
if grep -wE '__LOG__A|_Z13CurrentLoggerv' <<<"$exported"; then
  echo "internal symbols are exported"
  exit 1
fi
echo "install and link ok"
