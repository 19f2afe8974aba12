#!/bin/bash
# build.sh <build folder> [extra cmake arguments...]: configures once and builds.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1; shift
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
fi
cmake --build "$dir" -j2 -- --no-print-directory >/dev/null
