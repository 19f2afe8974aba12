#!/bin/bash
# build.sh <build folder> [cmake arguments...] [-- targets...]
# Configures once and builds everything, or only the targets after "--".
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1; shift
args=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do args+=("$1"); shift; done
[ "${1:-}" = "--" ] && shift
targets=()
[ $# -gt 0 ] && targets=(--target "$@")
# Configured every time: a target added since the folder was made is then
# known before it is asked for.
cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${args[@]}" >/dev/null
cmake --build "$dir" -j2 "${targets[@]}" -- --no-print-directory >/dev/null
