#!/bin/sh
# Builds the native library alone into priv/arbo_nif.so: rebar3's compile
# hook (also when arbo is a dependency of a rebar3 or mix project). Needs
# cmake, a C++20 compiler and erl_nif.h; no test or benchmark framework.
#   tools/build_nif.sh          build (incremental)
#   tools/build_nif.sh clean    remove the build folder and the library
# ARBO_NIF_BUILD_DIR (default build-nif) and ARBO_JOBS (default: all cores)
# change where and how wide it builds.
set -eu
cd "$(dirname "$0")/.."
dir=${ARBO_NIF_BUILD_DIR:-build-nif}
if [ "${1:-}" = clean ]; then
  rm -rf "$dir" priv/arbo_nif.so
  exit 0
fi
command -v cmake >/dev/null 2>&1 || {
  echo "arbo: cmake is needed to build the native library (Debian: apt-get install cmake g++)" >&2
  exit 1
}
# Quiet when it works, the whole log when it does not.
run() {
  if ! out=$("$@" 2>&1); then
    printf '%s\n' "$out" >&2
    exit 1
  fi
}
if [ ! -f "$dir/CMakeCache.txt" ]; then
  run cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DARBO_TESTS=OFF -DARBO_BENCH=OFF
fi
jobs=${ARBO_JOBS:-$(getconf _NPROCESSORS_ONLN 2>/dev/null || echo 2)}
run cmake --build "$dir" --target arbo_nif --parallel "$jobs"
mkdir -p priv
cp "$dir/arbo_nif.so" priv/arbo_nif.so.tmp
mv priv/arbo_nif.so.tmp priv/arbo_nif.so
