#!/usr/bin/env bash
# Configures and builds one flavour of the project.
#   scripts/build.sh [--sanitize address|thread] [--release] [--bench]
# Build directories: build/ (plain), build-asan/, build-tsan/, build-release/.
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
build_type=RelWithDebInfo
bench=OFF
while [ $# -gt 0 ]; do
  case "$1" in
    --sanitize) sanitize="$2"; shift 2 ;;
    --release) build_type=Release; shift ;;
    --bench) bench=ON; shift ;;
    *) echo "build.sh: unknown option $1" >&2; exit 2 ;;
  esac
done

# Sanitizer builds are unoptimised: they compile faster, keep every frame
# in the reports, and avoid the optimiser's false warnings under -Werror.
case "$sanitize" in
  "") dir=build ;;
  address) dir=build-asan; build_type=Debug ;;
  thread) dir=build-tsan; build_type=Debug ;;
  *) echo "build.sh: --sanitize takes address or thread" >&2; exit 2 ;;
esac
[ "$build_type" = Release ] && [ -z "$sanitize" ] && dir=build-release

# Progress goes to standard error; standard output names the directory.
scripts/setup.sh >&2
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$build_type" \
  -DLOREG_SANITIZE="$sanitize" -DLOREG_BUILD_BENCH="$bench" >&2
cmake --build "$dir" -j "$(nproc)" >&2
echo "$dir"
