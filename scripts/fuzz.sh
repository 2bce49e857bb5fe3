#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (build/fuzz) and runs each for
# SECONDS (default 60) on a scratch copy of its seed corpus. Fails on any crash, leak,
# time-out or sanitizer report; the finding and its reproducer (crash-*, leak-*,
# timeout-*) are left in build/fuzz/findings/<target>/.
# Usage: scripts/fuzz.sh [SECONDS]. Needs root: the description-file target mounts a
# private /run.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${1:-60}
dir=build/fuzz
targets=(fuzz_stream_file fuzz_queue_header fuzz_input_frames)

CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMIXER_FUZZ=ON
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for t in "${targets[@]}"; do
  echo "=== fuzz: $t for ${seconds} s"
  work="$dir/corpus/$t"
  findings="$dir/findings/$t"
  rm -rf "$work" "$findings"
  mkdir -p "$work" "$findings"
  cp "$root/fuzz/corpus/$t/"* "$work/"
  # -timeout: one run that takes longer (a blocked open, a lock wait) is a finding.
  if ! "$dir/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/" "$work" > "$findings/log" 2>&1; then
    tail -n 60 "$findings/log"
    echo "=== fuzz: $t failed; reproducer in $findings/"
    exit 1
  fi
  grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb|#[0-9]+ +DONE)' "$findings/log" || true
done
echo "=== fuzz: all targets ran clean"
