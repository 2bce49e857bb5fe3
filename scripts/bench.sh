#!/usr/bin/env bash
# Builds the benchmark suite optimised (build/bench, Release) and runs it: every figure
# of the audio path beside its baselines, in one run. Extra arguments go to the
# benchmark binary (e.g. --benchmark_filter=AddFrames or --benchmark_min_time=1).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DMIXER_BUILD_TESTS=OFF -DMIXER_BUILD_HOST=OFF -DMIXER_BUILD_BENCH=ON >/dev/null
cmake --build build/bench -j "$(nproc)" --target mixer_bench
exec build/bench/bench/mixer_bench "$@"
