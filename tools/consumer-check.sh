#!/usr/bin/env bash
# Proves that an installed kalo is usable from another project: builds the
# out-of-tree program tests/consumer once with find_package(kalo) and once with
# `pkg-config --cflags --libs kalo`, compiles every installed header on its own
# as strict C99, checks the library's SONAME, then runs both programs against
# the installed kalo-sim.
#
#   tools/consumer-check.sh PREFIX      a `cmake --install build --prefix PREFIX` tree
#   tools/consumer-check.sh --root DIR  the Debian packages unpacked with `dpkg -x` into DIR
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"

if [ "${1:-}" = "--root" ] && [ $# -eq 2 ]; then
  sysroot="$(cd "$2" && pwd)"
  prefix="$sysroot/usr"
elif [ $# -eq 1 ] && [ "${1#-}" = "$1" ]; then
  sysroot=""
  prefix="$(cd "$1" && pwd)"
else
  echo "usage: $0 PREFIX | --root DIR" >&2
  exit 2
fi
cc="${CC:-cc}"
work="$(mktemp -d)"
sim_pid=""
cleanup() {
  if [ -n "$sim_pid" ] && kill -0 "$sim_pid" 2>/dev/null; then
    kill -INT "$sim_pid"
    wait "$sim_pid" || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "consumer check: $*" >&2
  exit 1
}

library="$(find "$prefix/lib" -name libkalo.so.4 | head -n 1)"
[ -n "$library" ] || fail "no libkalo.so.4 under $prefix/lib"
libdir="$(dirname "$library")"
readelf -d "$library" | grep -q 'Library soname: \[libkalo\.so\.4\]' ||
  fail "$library does not carry the SONAME libkalo.so.4"
echo "consumer check: $library, SONAME libkalo.so.4"

# Every installed header compiles on its own: none leans on one that is not installed.
for header in "$prefix"/include/kalo/*.h; do
  printf '#include "kalo/%s"\ntypedef int translation_unit_not_empty;\n' "$(basename "$header")" |
    "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" -x c - ||
    fail "$header does not compile on its own"
done

echo "consumer check: find_package(kalo 4.4)"
cmake -S "$source_dir/tests/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" ||
  { cat "$work/cmake.log"; fail "configuring with find_package failed"; }
found="$(sed -n 's/^kalo_DIR:PATH=//p' "$work/cmake/CMakeCache.txt")"
case "$found" in
  "$prefix"/*) ;;
  *) fail "find_package found kalo in $found, not under $prefix" ;;
esac
cmake --build "$work/cmake" >"$work/build.log" || { cat "$work/build.log"; fail "building with find_package failed"; }

echo "consumer check: pkg-config --cflags --libs kalo"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ -z "$sysroot" ] || export PKG_CONFIG_SYSROOT_DIR="$sysroot"
header_version="$(sed -n 's/^#define KALO_VERSION_STRING "\(.*\)"/\1/p' "$prefix/include/kalo/kalo_version.h")"
[ "$(pkg-config --modversion kalo)" = "$header_version" ] ||
  fail "kalo.pc says $(pkg-config --modversion kalo), kalo_version.h says $header_version"
mkdir -p "$work/pc"
# shellcheck disable=SC2046 # the flags are words
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror "$source_dir/tests/consumer/main.c" \
  -o "$work/pc/kalo_consumer" $(pkg-config --cflags --libs kalo)

# kalo-sim on a free port; it names the port it took on its first line.
"$prefix/bin/kalo-sim" --port 0 --hand circle 2>"$work/sim.log" &
sim_pid=$!
port=""
for _ in $(seq 50); do
  port="$(sed -n 's/.* on 127\.0\.0\.1:\([0-9]*\),.*/\1/p' "$work/sim.log")"
  [ -n "$port" ] && break
  kill -0 "$sim_pid" 2>/dev/null || break
  sleep 0.1
done
[ -n "$port" ] || { cat "$work/sim.log" >&2; fail "kalo-sim did not start"; }

url="udpxdr://127.0.0.1#$port"
echo "consumer check: running the find_package build against kalo-sim on $url"
"$work/cmake/kalo_consumer" "$url"
echo "consumer check: running the pkg-config build against kalo-sim on $url"
LD_LIBRARY_PATH="$libdir" "$work/pc/kalo_consumer" "$url"

# The MuJoCo example from the installed sources, when MuJoCo is installed.
examples="$prefix/share/doc/kalo/examples"
if [ -f "$examples/mujoco_push.c" ] && compgen -G "/usr/lib/*/cmake/mujoco/mujocoConfig.cmake" >/dev/null; then
  echo "consumer check: the MuJoCo example from $examples, against kalo-sim"
  cmake -S "$source_dir/tests/consumer/mujoco" -B "$work/mujoco" -DCMAKE_PREFIX_PATH="$prefix" \
    -DKALO_EXAMPLES="$examples" >"$work/mujoco.log" || { cat "$work/mujoco.log"; fail "configuring the MuJoCo example failed"; }
  cmake --build "$work/mujoco" >"$work/mujoco-build.log" ||
    { cat "$work/mujoco-build.log"; fail "building the MuJoCo example failed"; }
  "$work/mujoco/mujoco_push" --scene "$examples/mujoco_push.xml" --seconds 1 "$url" >"$work/mujoco-run.log" ||
    { cat "$work/mujoco-run.log"; fail "the MuJoCo example failed"; }
fi
echo "consumer check: passed"
