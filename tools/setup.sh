#!/usr/bin/env bash
# Installs the Debian packages kalo needs that this machine lacks. The one list
# of them: the quick start, the test command and CI all call this script.
#
#   tools/setup.sh          what building and running kalo needs (the quick start)
#   tools/setup.sh test     that plus what the tests, benchmarks, fuzzing, the API
#                           reference, the Python package and the .deb packages need
#
# Silent when everything is there; otherwise it updates the package index once,
# installs what is missing (through sudo when not root) and says what it did.
set -euo pipefail

# python3-matplotlib: the quick start draws the coupling session with tools/kalo-plot.
main_packages="cmake g++ make pkg-config libtirpc-dev python3-matplotlib"
test_packages="libgtest-dev libgmock-dev libeigen3-dev libbenchmark-dev binutils doxygen
  clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev python3-numpy python3-pytest python3-mypy dpkg-dev file
  libmujoco-dev libqhull-dev libgl-dev libopengl-dev"
# (MuJoCo for examples/mujoco_push.c; Debian's CMake package of it also names
# qhull's headers and OpenGL without depending on them.)

case "${1:-main}" in
  main) wanted="$main_packages" ;;
  test) wanted="$main_packages $test_packages" ;;
  *)
    echo "usage: $0 [main|test]" >&2
    exit 2
    ;;
esac

missing=()
for package in $wanted; do
  # Installed means "install ok installed", not merely known to dpkg.
  status="$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)"
  [ "$status" = "install ok installed" ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo_cmd=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || {
    echo "setup: missing packages: ${missing[*]}; install them as root (no sudo here)" >&2
    exit 1
  }
  sudo_cmd="sudo"
fi
echo "setup: installing ${missing[*]}"
$sudo_cmd apt-get update -qq
$sudo_cmd env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
