#!/usr/bin/env bash
# Runs every test program of a build under valgrind memcheck. The library's
# global operators stay in place (nouserintercepts) and the process uses the
# runtime heap (ZMX_CRTMALLOC), whose blocks memcheck tracks one by one.
#   tools/run_valgrind.sh [build-dir] [gtest-filter]
set -euo pipefail
build=${1:-build/ci}
filter=${2:-*}
status=0
for t in "$build"/tests/*_tests; do
  echo "== valgrind $t"
  ZMX_CRTMALLOC=1 ZMX_VALGRIND=1 valgrind -q --error-exitcode=99 --soname-synonyms=somalloc=nouserintercepts \
    --suppressions="$(dirname "$0")/valgrind.supp" \
    --leak-check=no "$t" --gtest_filter="$filter" --gtest_brief=1 || status=1
done
exit $status
