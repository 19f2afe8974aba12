#!/bin/bash
# screenshots.sh [output folder, default docs/]
# Builds the program and photographs its main window and dialogs on a
# virtual X display with three virtual cameras, for docs/ and the README.
# Settings and photos of the run go to a temporary folder.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=$(realpath -m "${1:-$top/docs}")
mkdir -p "$out"
bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$top/build" -- brivora_screenshots

export VCAM_CAMERAS=3
export VCAM_0_SIZES=1920x1080 VCAM_2_SIZES=1280x720 VCAM_4_SIZES=1280x720
export VCAM_0_SCENE="sheets:0.5,0.5,0.42,0.8,8"
export VCAM_2_SCENE="sheets:0.3,0.5,0.35,0.6,-5;0.72,0.5,0.35,0.6,12"
export VCAM_4_SCENE="desk"
export LD_PRELOAD="$top/build/tools/virtualcam/libvirtualcam.so"
export OPENCV_VIDEOIO_PRIORITY_GSTREAMER=0 OPENCV_VIDEOIO_PRIORITY_GPHOTO2=0

run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT
cd "$run"
HOME="$run" xvfb-run -a -s "-screen 0 1280x800x24" \
  "$top/build/tools/brivora_screenshots" "$out" 2>&1 | grep -E '^(wrote|could not|needs|the camera)' || true
ls "$out"/*.png
