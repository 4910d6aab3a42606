#!/usr/bin/env bash
# Installs the library into a scratch prefix, moves the installed tree, and
# builds a client program against it alone with pkg-config and with CMake's
# find_package (both must find the tree at its new place). Runs both, and
# checks that internal headers and symbols stay out of the installed tree.
set -euo pipefail
build_dir=$1 cxx=$2 source=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build_dir" --prefix "$scratch/installed" >/dev/null
mv "$scratch/installed" "$scratch/moved"
prefix=$scratch/moved
libdir=$(dirname "$(find "$prefix" -name 'libkorvcache.so' | head -n 1)")
mkdir -p "$prefix/cache" "$scratch/find-package"
fail() { echo "$1" >&2; exit 1; }
[ -z "$(find "$prefix/include" -name platform.h -o -name clock.h)" ] || fail "internal headers are installed"
! grep -wE '__LOG__A|_Z13CurrentLoggerv' <<<"$(nm -D --defined-only "$libdir/libkorvcache.so")" ||
  fail "internal symbols are exported"

read -ra pc_flags <<<"$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs korvcache)"
"$cxx" -std=c++17 -Wall -Wextra -Werror "$source" "${pc_flags[@]}" -Wl,-rpath,"$libdir" -o "$scratch/client-pc"
"$scratch/client-pc" "$prefix/cache"

cp "$source" "$scratch/find-package/client_program.cpp"
printf '%s\n' 'cmake_minimum_required(VERSION 3.16)' 'project(korvcache_user CXX)' 'set(CMAKE_CXX_STANDARD 17)' \
  'find_package(korvcache 0.1 REQUIRED)' 'add_executable(client client_program.cpp)' \
  'target_compile_options(client PRIVATE -Wall -Wextra -Werror)' \
  'target_link_libraries(client PRIVATE korvcache::korvcache)' >"$scratch/find-package/CMakeLists.txt"
CXX="$cxx" cmake -S "$scratch/find-package" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null
"$scratch/build/client" "$prefix/cache"
echo "install and link ok"
