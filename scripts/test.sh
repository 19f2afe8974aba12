#!/bin/bash
# Installs what is needed, builds the program twice (plain, and with
# AddressSanitizer + UndefinedBehaviorSanitizer) and runs the whole suite in
# both builds; then builds the tests labelled "race" with ThreadSanitizer
# and runs those; then fuzzes each libFuzzer target for 30 s, runs the
# real program through a 2-minute soak, and last builds the amd64 Debian
# package and checks it.
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

# The ThreadSanitizer build runs the tests labelled "race" (the capture
# thread against the GUI thread); each test's executable is named like it.
echo "== build-tsan: building the tests labelled race"
cmake -S "$top" -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIVORA_TSAN=ON >/dev/null
mapfile -t race_tests < <(cd build-tsan && ctest -N -L '^race$' | sed -n 's/^ *Test *#[0-9]*: //p')
bash scripts/build.sh build-tsan -DBRIVORA_TSAN=ON -- "${race_tests[@]}"
echo "== build-tsan: testing"
(cd build-tsan && ctest --output-on-failure -L '^race$') || status=1
echo "== fuzzing: each target for 30 s"
bash scripts/fuzz.sh 30 || status=1
echo "== soak: 2 minutes of the real program"
bash scripts/soak.sh 2 build || status=1

echo "== package: amd64 build and checks"
bash scripts/package.sh amd64 || status=1
exit $status
