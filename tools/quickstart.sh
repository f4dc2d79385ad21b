#!/usr/bin/env bash
# Builds kalo, starts the controller simulator on loopback and runs the
# examples against it. It installs the Debian packages it needs first
# (tools/setup.sh) and builds only what it runs: the library, the simulator,
# the examples and the tools; tests and benchmarks are tools/test.sh's.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh main

echo "quickstart: building the library, kalo-sim, the examples and the tools"
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKALO_BUILD_TESTS=OFF -DKALO_BUILD_BENCH=OFF \
  "${launcher[@]}" >/dev/null
cmake --build build -j"$(nproc)"
echo "built build/libkalo.so"

# The simulator stands in for the arm's controller: 1 kHz state frames, a
# scripted hand moving the handle in a circle so that there is motion to see.
port="${KALO_SIM_PORT:-5000}"
build/sim/kalo-sim --port "$port" --hand circle &
sim_pid=$!
stop_sim() {
  if kill -0 "$sim_pid" 2>/dev/null; then
    kill -INT "$sim_pid"
    wait "$sim_pid"
  fi
}
trap stop_sim EXIT
sleep 0.3
if ! kill -0 "$sim_pid" 2>/dev/null; then
  echo "kalo-sim did not start (is port $port taken? set KALO_SIM_PORT)" >&2
  exit 1
fi

# ---- the example against the simulator ----
build/examples/first_contact "udpxdr://127.0.0.1#$port"
build/examples/coupling "udpxdr://127.0.0.1#$port" 5 build/coupling-session.csv
# ---- end of the example ----
stop_sim
trap - EXIT
echo "kalo-sim stopped cleanly"

# The coupling session as a picture: the handle held at the virtual wall, the
# force it felt, and how regularly the frames came.
if /usr/bin/python3 -c "import matplotlib" 2>/dev/null; then
  plot=$(/usr/bin/python3 tools/kalo-plot build/coupling-session.csv build/coupling-session.png \
    --title "coupling example against kalo-sim")
  echo "plot of the coupling session: $(pwd)/$plot"
else
  echo "session recorded in $(pwd)/build/coupling-session.csv;" \
    "install python3-matplotlib and run tools/kalo-plot on it for a picture"
fi
