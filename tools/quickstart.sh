#!/usr/bin/env bash
# Builds kalo and, once they exist, starts the simulator on loopback and runs
# the coupling example against it.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2
echo "built $(ls build/libkalo.so*  | head -n 1)"
