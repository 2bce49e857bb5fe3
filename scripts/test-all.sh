#!/usr/bin/env bash
# Installs the dependencies, then builds and runs every test three ways:
#   1. native x86-64 with AddressSanitizer and UndefinedBehaviorSanitizer (benchmarks
#      built too, not timed, so that they cannot rot);
#   2. a cross build for 32-bit ARM (armhf) whose tests run under qemu-arm, with the
#      portable kernels, then its algorithm suite again with the NEON kernels;
#   3. ThreadSanitizer over the threaded suites;
# then the daemon benchmark once briefly (scripts/bench-daemon.sh --brief: it must run
# and print its table; its figures are not judged) and the demo (scripts/demo.sh: the
# README's first command must keep working), and last runs the libFuzzer targets of fuzz/, built with clang, a minute each
# (scripts/fuzz.sh).
# Run from anywhere, as root, on Debian bookworm.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=$(nproc)

if [ "${MIXER_SKIP_DEPS:-0}" != 1 ]; then
  scripts/install-deps.sh
fi

run_suite() {  # name, build dir, cmake args...
  local name=$1 dir=$2
  shift 2
  echo "=== ${name}: configure"
  cmake -S "$root" -B "$dir" -G Ninja "$@"
  echo "=== ${name}: build"
  cmake --build "$dir" -j "$jobs"
  echo "=== ${name}: test"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 600)
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run_suite "native asan+ubsan" build/asan -DCMAKE_BUILD_TYPE=Debug -DMIXER_SANITIZE=address,undefined
run_suite "armhf under qemu-arm" build/armhf -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf-toolchain.cmake" -DMIXER_BUILD_BENCH=OFF \
  -DMIXER_PORTABLE_KERNELS=ON
# The NEON kernels on the same target: only the algorithm suite, whose kernel tests
# hold every fast path to its scalar reference (the build above ran the portable ones).
echo "=== armhf with NEON kernels: algorithm suite"
cmake -S "$root" -B build/armhf-neon -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf-toolchain.cmake" -DMIXER_BUILD_BENCH=OFF \
  -DMIXER_BUILD_HOST=OFF -DMIXER_NEON=ON
cmake --build build/armhf-neon -j "$jobs" --target test_algo
(cd build/armhf-neon && ctest -R '^(MixKernels|Algo)' --output-on-failure -j "$jobs" --timeout 600)
run_suite "native tsan" build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMIXER_SANITIZE=thread \
  -DMIXER_BUILD_BENCH=OFF

echo "=== daemon benchmark, brief (figures printed, not judged)"
scripts/bench-daemon.sh --brief

echo "=== the demo (it must run to its end)"
scripts/demo.sh

scripts/fuzz.sh 60

echo "=== all suites passed"
