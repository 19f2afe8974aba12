#!/bin/bash
# test-arm64.sh [screenshot.png]
# Cross-builds the program, the virtual camera and the test executables for
# arm64 inside the Debian 12 root of scripts/arm64-root.sh, runs the tests
# here under user-mode emulation (qemu-aarch64-static, the root as library
# prefix), builds dist/brivora_<version>_arm64.deb, and starts the arm64
# program with two arm64 virtual cameras on a virtual display for a
# screenshot (default .cache/arm64-screenshot.png).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
shot=$(realpath -m "${1:-$top/.cache/arm64-screenshot.png}")
start=$(date +%s)

# Static qemu: an arm64 library in LD_PRELOAD is not the emulator's own
# business and must reach the emulated program without complaint.
bash scripts/deps.sh qemu-user-static
qemu=/usr/bin/qemu-aarch64-static
root=$(bash scripts/arm64-root.sh)
build="$top/.cache/arm64-build"

echo "== cross-building for arm64 in $root"
bash scripts/arm64-root.sh --run "cmake -S '$top' -B '$build' -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE='$top/scripts/arm64/toolchain.cmake' -DBRIVORA_ARM64_ROOT='$root' >/dev/null && \
  cmake --build '$build' -j2 -- --no-print-directory >/dev/null"

# No binfmt_misc here: tests that start the program as a subprocess reach
# an amd64 stand-in that runs the arm64 program under the emulator.
if [ "$(od -An -tx1 -j18 -N2 "$build/brivora" | tr -d ' ')" = b700 ]; then
  mv "$build/brivora" "$build/brivora.arm64"
fi
gcc -static -O2 -Wall -DQEMU_PATH="\"$qemu\"" -DARM64_ROOT="\"$root\"" \
  scripts/arm64/emulated.c -o "$build/brivora"
echo "   $(od -An -tx1 -j18 -N2 "$build/brivora.arm64" | tr -d ' ' | sed 's/b700/arm64 program: brivora.arm64/')"

echo "== running the tests under $qemu"
# tst_install installs the built program with cmake and starts the copy:
# the copy would be the amd64 stand-in without the arm64 program beside it.
# The install rule is the same on every architecture and the arm64 package
# below is checked instead.
left_out='^(tst_install)$'
status=0
(cd "$build" && ctest -j2 --output-on-failure -E "$left_out") > "$top/.cache/arm64-tests.log" 2>&1 || status=1
grep -E "tests passed|Test +#|\*\*\*Failed|Timeout" "$top/.cache/arm64-tests.log" || true

echo "== arm64 package"
bash scripts/package.sh arm64 || status=1

echo "== arm64 program with two arm64 virtual cameras on a virtual display"
elsewhere=$(mktemp -d)
xvfb-run -a -s "-screen 0 1280x800x24" bash -c '
  cd "$4"
  VCAM_CAMERAS=2 VCAM_0_SCENE="sheets:0.5,0.5,0.5,0.72,8" \
  VCAM_2_SCENE="sheets:0.3,0.5,0.35,0.6,-5;0.72,0.5,0.35,0.6,12" \
  LD_PRELOAD="$2" "$1" > "$4/run.log" 2>&1 & pid=$!
  sleep "${SHOT_DELAY:-30}"
  import -window root "$3"
  kill -0 $pid || { cat "$4/run.log"; exit 1; }
  kill $pid; wait $pid 2>/dev/null || true
' _ "$build/brivora" "$build/tools/virtualcam/libvirtualcam.so" "$shot" "$elsewhere" || status=1
grep -q "brivora.arm64\|\"$build\"" "$elsewhere/run.log" && echo "   the arm64 program reported its folder"
rm -rf "$elsewhere"
echo "   screenshot: $shot"

echo "== test-arm64.sh took $(( $(date +%s) - start )) s"
exit $status
