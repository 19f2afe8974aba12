#!/bin/bash
# Installs what is needed, builds and starts the program from build/.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$top/build"
exec "$top/build/brivora" "$@"
