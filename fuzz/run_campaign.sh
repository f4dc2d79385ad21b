#!/usr/bin/env bash
# Long fuzz campaigns, one target at a time, at the lowest CPU priority.
#   fuzz/run_campaign.sh [seconds per target] [build dir] [target...]
# Builds the targets when needed (the build dir is configured with clang and
# KALO_BUILD_FUZZ=ON if it does not exist yet), keeps each target's growing
# corpus in <build dir>/campaign/<name>, and prints the executions of each
# target and the total. Crash inputs land in <build dir>/campaign/artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-600}
build=${2:-build-fuzz}
shift $(( $# < 2 ? $# : 2 ))
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(frame_decoder codec_roundtrip connection_url)

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -DKALO_BUILD_FUZZ=ON -DKALO_BUILD_TESTS=OFF \
    -DKALO_BUILD_BENCH=OFF -DKALO_BUILD_SIM=OFF >/dev/null
fi
cmake --build "$build" -j2 --target "${targets[@]/#/fuzz_}" >/dev/null

artifacts="$build/campaign/artifacts"
mkdir -p "$artifacts"
total=0
status=0
for name in "${targets[@]}"; do
  corpus="$build/campaign/$name"
  mkdir -p "$corpus"
  log="$build/campaign/$name.log"
  echo "== fuzz_$name for ${seconds} s (log: $log)"
  if ! nice -n 19 "$build/fuzz/fuzz_$name" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$artifacts/" "$corpus" "fuzz/corpus/$name" >"$log" 2>&1; then
    echo "   FAILED: see $log and $artifacts"
    status=1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  runs=${runs:-0}
  echo "   executions: $runs"
  total=$((total + runs))
done
echo "== total executions: $total"
exit $status
