#!/usr/bin/env bash
# Sets up, builds and runs the test suite.
#   scripts/test.sh                      plain build, whole suite
#   scripts/test.sh --sanitize address   under AddressSanitizer+UBSan
#   scripts/test.sh --sanitize thread    the threaded tests under ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
if [ "${1:-}" = "--sanitize" ]; then sanitize="${2:-}"; fi

dir=$(scripts/build.sh ${sanitize:+--sanitize "$sanitize"} | tail -n 1)

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
labels=()
[ "$sanitize" = thread ] && labels=(-L threaded)
cd "$dir"
ctest --output-on-failure -j "$(nproc)" "${labels[@]}"
