#!/usr/bin/env bash
# Builds the Debian packages (libkalo4, libkalo-dev, kalo-tools, and
# python3-kalo when the build has the Python package) into BUILD_DIR/packages
# and checks that each holds what it should and depends on what it must.
#
#   tools/make-debs.sh [BUILD_DIR]    (default ./build; configured with the tests
#                                      off when it does not exist yet)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -DKALO_BUILD_TESTS=OFF -DKALO_BUILD_BENCH=OFF >/dev/null
fi
rm -rf "$build/packages"
cmake --build "$build" -j"$(nproc)" --target package >"$build/make-debs.log" ||
  { cat "$build/make-debs.log"; exit 1; }

version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
major="${version%%.*}"
status=0
# check PACKAGE FIELD-OR-PATH PATTERN...: each extended regular expression must
# match a line of the package's file list (paths) or its Depends field.
check() {
  local package="$1" what="$2"
  shift 2
  local debs=("$build"/packages/"${package}"_*.deb)
  local deb="${debs[0]}"
  if [ ! -f "$deb" ]; then
    echo "make-debs: no package $package" >&2
    status=1
    return
  fi
  local text
  if [ "$what" = "files" ]; then
    text="$(dpkg-deb -c "$deb" | awk '{print $6}')"
  else
    text="$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/^ *//')"
  fi
  for pattern in "$@"; do
    grep -Eq "^${pattern}\$" <<<"$text" || {
      echo "make-debs: $package: nothing matches $pattern in its $what" >&2
      status=1
    }
  done
}
lib='\./usr/lib(/[a-z0-9_-]+)?'
check "libkalo$major" files "$lib/libkalo\.so\.$major" "$lib/libkalo\.so\.$version"
check "libkalo$major" Depends 'libtirpc3( .*)?' 'libc6( .*)?'
check libkalo-dev files '\./usr/include/kalo/kalo\.h' '\./usr/include/kalo/kalo_version\.h' \
  "$lib/libkalo\.so" "$lib/cmake/kalo/kaloConfig\.cmake" "$lib/cmake/kalo/kaloConfigVersion\.cmake" \
  "$lib/cmake/kalo/kaloTargets\.cmake" "$lib/pkgconfig/kalo\.pc" \
  '\./usr/share/doc/kalo/examples/first_contact\.c' '\./usr/share/doc/kalo/examples/coupling\.c'
check libkalo-dev Depends "libkalo$major \(= $version-[0-9]+\)" 'libtirpc-dev'
check kalo-tools files '\./usr/bin/kalo-sim' '\./usr/bin/kalo-monitor' '\./usr/bin/kalo-doctor' \
  '\./usr/bin/kalo-plot'
check kalo-tools Depends "libkalo$major \(= $version-[0-9]+\)"
if compgen -G "$build/packages/python3-kalo_*.deb" >/dev/null; then
  check python3-kalo Depends "libkalo$major \(= $version-[0-9]+\)" 'python3-numpy'
  check python3-kalo files '\./usr/lib/python3/dist-packages/kalo/py\.typed' \
    '\./usr/lib/python3/dist-packages/kalo/_device_calls\.pyi'
fi

for deb in "$build"/packages/*.deb; do
  echo "$deb: $(dpkg-deb -f "$deb" Depends)"
done
exit $status
