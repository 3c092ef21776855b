#!/usr/bin/env bash
# Sets up and builds the project, then runs the main program.
# The registry daemon is not part of the tree yet: until it is, this
# builds the libraries and says so.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(scripts/build.sh | tail -n 1)
echo "Built the libraries in $dir/ (src/platform/libloreg-platform.so, src/loreg/libloreg.so)."
echo "There is no main program yet: the registry daemon loregd comes with the cross-process work."
