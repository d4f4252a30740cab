#!/bin/sh
# Builds the allocator benchmark in release mode and runs the whole comparison.
# Usage: bench/alloc/run.sh [--quick] [--small] [--rounds N]   (results in build-bench/alloc_bench*.md|svg)
#   --quick  a fifth of the operations, one round
#   --small  only the small-object workloads, against glibc, the general heap and the three peers
set -e
root=$(cd "$(dirname "$0")/../.." && pwd)
build="$root/build-bench"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZMX_BUILD_BENCH=ON -DZMX_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" -j2 alloc_bench
"$build/bench/alloc/alloc_bench" --out "$build" "$@"
