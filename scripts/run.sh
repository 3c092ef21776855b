#!/usr/bin/env bash
# Sets up and builds the project, then runs the main program: the registry
# daemon loregd in the foreground with its defaults (socket
# /tmp/loreg.sock, root "/com/norvi/", files /tmp/loreg0.dat and
# /tmp/loreg1.dat). Further arguments go to loregd, e.g.
#   scripts/run.sh -v --no-persist
# Ctrl-C (or SIGTERM) stops it; it saves what is unsaved first.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(scripts/build.sh | tail -n 1)
echo "Starting $dir/tools/loregd/loregd --foreground $*" >&2
echo "Try it from another terminal: $dir/tools/loregctl/loregctl set /com/norvi/hello world" >&2
exec "$dir/tools/loregd/loregd" --foreground "$@"
