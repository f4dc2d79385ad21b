#!/usr/bin/env bash
# The test command: installs what the tests need (tools/setup.sh test),
# configures the build directory with every part on and warnings as errors,
# builds everything and runs every test. CI runs exactly this first.
#
#   tools/test.sh            uses ./build
#   KALO_BUILD_DIR=DIR tools/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh test

build="${KALO_BUILD_DIR:-build}"
jobs="$(nproc)"
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -DKALO_WERROR=ON -DKALO_BUILD_TESTS=ON -DKALO_BUILD_SIM=ON -DKALO_BUILD_BENCH=ON \
  -DKALO_BUILD_MUJOCO=ON \
  "${launcher[@]}"
cmake --build "$build" -j"$jobs"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
