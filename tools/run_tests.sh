#!/usr/bin/env bash
# Runs the whole test suite from a clean tree: installs what is missing, builds
# the library and tests with warnings as errors and runs them; then the same
# suite under UndefinedBehaviorSanitizer, then a short run of every fuzz target.
#   ZMX_TEST_QUICK=1  skip the sanitizer and fuzz passes
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=$(nproc)

"$root/tools/setup.sh"

step() { printf '\n==== %s\n' "$*"; }

step "build (g++, warnings as errors)"
cmake -S . -B build/ci -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZMX_WARNINGS_AS_ERRORS=ON >/dev/null
cmake --build build/ci -j "$jobs"
step "test suite"
(cd build/ci && ctest -j "$jobs" --output-on-failure --timeout 900)

if [ "${ZMX_TEST_QUICK:-0}" != "1" ]; then
  step "build (UndefinedBehaviorSanitizer)"
  cmake -S . -B build/ubsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZMX_UBSAN=ON -DZMX_WARNINGS_AS_ERRORS=ON >/dev/null
  cmake --build build/ubsan -j "$jobs"
  step "test suite under UndefinedBehaviorSanitizer"
  (cd build/ubsan && UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j "$jobs" --output-on-failure --timeout 1800)

  if [ -n "$(find fuzz -mindepth 2 -name CMakeLists.txt 2>/dev/null)" ]; then
    step "fuzz targets (clang, libFuzzer, short runs)"
    cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
      -DZMX_BUILD_FUZZ=ON -DZMX_BUILD_TESTS=OFF -DZMX_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build build/fuzz -j "$jobs"
    (cd build/fuzz && ctest -j "$jobs" --output-on-failure -L fuzz)
  fi
fi
step "all tests passed"
