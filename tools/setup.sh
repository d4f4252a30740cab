#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build, test, fuzz and benchmark
# the library. Idempotent: packages already present are not fetched again.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config            # build
  libgtest-dev libgmock-dev libbenchmark-dev  # tests and benchmarks
  clang libclang-rt-14-dev                    # fuzz targets (libFuzzer)
  valgrind                                    # memory checking of the suite
  locales                                     # locale sources the case tests compile
  libmimalloc-dev libjemalloc-dev libgoogle-perftools-dev  # allocator peers
  heaptrack                                                 # tracking peer
  libroaring-dev libabsl-dev libjudy-dev                    # container peers
  libcgal-dev                                               # octree peer (header-only AABB tree)
  libdw1                                                    # crash-report symbolisation, loaded at run time
  python3                                                   # a real program run under zmx_run by the tests
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
echo "setup: all build, test and benchmark packages present"
