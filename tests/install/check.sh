#!/usr/bin/env bash
# Installs the library from an existing build directory into a temporary
# prefix and builds a C consumer against it twice: through the CMake package
# config and through pkg-config (linking the shared library).
set -euo pipefail
build=${1:-build}
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$root/$build" --prefix "$work/prefix" >/dev/null
for f in include/qwvm/qwvm.h lib/libqwvm.a lib/libqwvm.so lib/pkgconfig/qwvm.pc lib/cmake/qwvm/qwvmConfig.cmake; do
  test -e "$work/prefix/$f" || { echo "install check: missing $f"; exit 1; }
done

mkdir -p "$work/consumer"
cp "$root/tests/capi/c_api_check.c" "$work/consumer/main.c"
cat > "$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(qwvm REQUIRED)
add_executable(consumer main.c)
target_link_libraries(consumer PRIVATE qwvm::qwvm)
CMAKE
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/build/consumer"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
cc -std=c11 "$work/consumer/main.c" $(pkg-config --cflags --libs qwvm) -o "$work/consumer/pc"
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/pc"

# The shared object exports exactly the functions the public headers declare
# with QW_API (instantiations of the standard library's templates keep their
# default visibility and are not ours).
grep -h 'QW_API' "$work/prefix/include/qwvm/"*.h | grep -v '#define' | grep -o 'QW_API[^(]*(' | sed -E 's/.*[ *]([A-Za-z_][A-Za-z0-9_]*)\($/\1/' | sort -u >"$work/declared"
nm -D --defined-only "$work/prefix/lib/libqwvm.so" | awk '$2 ~ /[TWVBDR]/ {print $3}' |
  grep -v -E '^_Z(N|NK|TV|TI|TS)?St|^_init$|^_fini$' | sort -u >"$work/exported"
unexpected=$(comm -13 "$work/declared" "$work/exported")
missing=$(comm -23 "$work/declared" "$work/exported")
if [ -n "$unexpected" ]; then
  echo "install check: exported but not declared:"; echo "$unexpected" | head -20; exit 1
fi
if [ -n "$missing" ]; then
  echo "install check: declared but not exported:"; echo "$missing" | head -20; exit 1
fi
echo "install check OK"
