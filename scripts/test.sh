#!/bin/bash
# Installs what is needed, builds the program twice (plain, and with
# AddressSanitizer + UndefinedBehaviorSanitizer) and runs the whole suite in
# both builds.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

bash scripts/deps.sh

status=0
for variant in build build-asan; do
  extra=()
  [ "$variant" = build-asan ] && extra=(-DBRIVORA_SANITIZE=ON)
  echo "== $variant: building"
  bash scripts/build.sh "$variant" "${extra[@]}"
  echo "== $variant: testing"
  (cd "$variant" && ctest --output-on-failure -j2) || status=1
done
exit $status
