#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a client program
# against the installed tree alone, three ways: by hand, with pkg-config from a
# moved prefix and with CMake's find_package. Runs each, and checks that the
# shared library exports the public surface and hides the internals and that
# only exported headers are installed.
set -euo pipefail
build_dir=$1 cxx=$2 source=$3
prefix=$(mktemp -d) moved=$(mktemp -d)
trap 'rm -rf "$prefix" "$moved"' EXIT
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libkorvcache.so' | head -n 1)")
mkdir -p "$prefix/cache" "$prefix/find-package"
flags=(-std=c++17 -Wall -Wextra -Werror)

"$cxx" "${flags[@]}" -I"$prefix/include" "$source" -L"$libdir" -lkorvcache -Wl,-rpath,"$libdir" -o "$prefix/client"
"$prefix/client" "$prefix/cache"

# The .pc file must find its prefix after a move.
cp -a "$prefix/." "$moved/"
moved_libdir=${libdir/#$prefix/$moved}
read -ra pc_flags <<<"$(PKG_CONFIG_PATH="$moved_libdir/pkgconfig" pkg-config --cflags --libs korvcache)"
"$cxx" "${flags[@]}" "$source" "${pc_flags[@]}" -Wl,-rpath,"$moved_libdir" -o "$moved/client-pc"
"$moved/client-pc" "$moved/cache"

project_dir="$prefix/find-package"
cp "$source" "$project_dir/client_program.cpp"
cat >"$project_dir/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(korvcache_user CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(korvcache 0.1 REQUIRED)
add_executable(client client_program.cpp)
target_compile_options(client PRIVATE -Wall -Wextra -Werror)
target_link_libraries(client PRIVATE korvcache::korvcache)
CMAKE
CXX="$cxx" cmake -S "$project_dir" -B "$project_dir/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$project_dir/build" >/dev/null
"$project_dir/build/client" "$prefix/cache"

fail() { echo "$1" >&2; exit 1; }
exported=$(nm -D --defined-only "$libdir/libkorvcache.so")
for symbol in InitCache ReleaseCache Cache_BindLogger Cache_UnbindLogger Cache_BindAsyncQ Cache_UnbindAsyncQ QueueAsync; do
  grep -qw "$symbol" <<<"$exported" || fail "missing export: $symbol"
done
! grep -wE '__LOG__A|_Z13CurrentLoggerv' <<<"$exported" || fail "internal symbols are exported"
for internal in platform.h clock.h; do
  [ -z "$(find "$prefix/include" -name "$internal")" ] || fail "internal header installed: $internal"
done
echo "install and link ok"
