#!/bin/bash
# test-arm64.sh [screenshot.png]
# Cross-builds the program, the virtual camera and the test executables for
# arm64 inside the Debian 12 root of scripts/arm64-root.sh and runs the tests
# there under user-mode emulation (qemu-aarch64-static, started explicitly
# for every arm64 executable: no binfmt_misc here); builds
# dist/brivora_<version>_arm64.deb; and starts the arm64 program with two
# arm64 virtual cameras on a virtual display for a screenshot (default
# .cache/arm64-screenshot.png).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
shot=$(realpath -m "${1:-$top/.cache/arm64-screenshot.png}")
start=$(date +%s)

root=$(bash scripts/arm64-root.sh)
build="$top/.cache/arm64-build"
inside() { bash scripts/arm64-root.sh --run "$1"; }

echo "== cross-building for arm64 in $root"
inside "cmake -S '$top' -B '$build' -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE='$top/scripts/arm64/toolchain.cmake' >/dev/null && \
  cmake --build '$build' -j2 -- --no-print-directory >/dev/null"

# Tests that start the program (or the test microphone's feeder) as a
# subprocess reach an amd64 stand-in that runs the arm64 executable, moved
# beside it, under the emulator.
for exe in "$build/brivora" "$build/tools/virtualmic/virtualmic"; do
  if [ "$(od -An -tx1 -j18 -N2 "$exe" | tr -d ' ')" = b700 ]; then
    mv "$exe" "$exe.arm64"
  fi
  inside "gcc -static -O2 -Wall -o '$exe' '$top/scripts/arm64/emulated.c'"
done
inside "aarch64-linux-gnu-gcc -shared -fPIC -O2 -Wall -o '$build/libnopidfd.so' '$top/scripts/arm64/nopidfd.c' -ldl"

echo "== running the tests under qemu-aarch64-static"
# tst_install installs the built program with cmake and starts the copy,
# which would be the stand-in without the arm64 program beside it; the
# install rule is the same on every architecture, and the arm64 package
# below is checked instead.
left_out='^(tst_install)$'
status=0
inside "cd '$build' && ARM64_NOPIDFD='$build/libnopidfd.so' ctest -j2 --output-on-failure -E '$left_out'" > "$top/.cache/arm64-tests.log" 2>&1 \
  || status=1
grep -E "tests passed|Test +#" "$top/.cache/arm64-tests.log" || true

echo "== arm64 package"
bash scripts/package.sh arm64 || status=1

echo "== arm64 program with two arm64 virtual cameras on a virtual display"
elsewhere="$top/.cache/arm64-elsewhere"
rm -rf "$elsewhere" "$shot"
mkdir -p "$elsewhere"
inside "cd '$elsewhere' && HOME='$elsewhere' xvfb-run -a -s '-screen 0 1280x800x24' bash -c '
  VCAM_CAMERAS=2 VCAM_0_SCENE=\"sheets:0.5,0.5,0.5,0.72,8\" \
  VCAM_2_SCENE=\"sheets:0.3,0.5,0.35,0.6,-5;0.72,0.5,0.35,0.6,12\" \
  LD_PRELOAD=$build/tools/virtualcam/libvirtualcam.so $build/brivora > run.log 2>&1 & pid=\$!
  sleep ${SHOT_DELAY:-40}
  import -window root $shot
  kill -0 \$pid || exit 1
  kill \$pid; wait \$pid 2>/dev/null || true'" || { status=1; cat "$elsewhere/run.log"; }
[ -f "$elsewhere/system.ini" ] && grep -q "$build" "$elsewhere/run.log" \
  && echo "   the arm64 program ran from $elsewhere and reported its own folder"
echo "   screenshot: $shot"

echo "== test-arm64.sh took $(( $(date +%s) - start )) s"
exit $status
