#!/bin/bash
# run-with-virtual-cameras.sh [number of cameras, default 2] [screenshot.png]
# Builds the program and starts it with virtual cameras instead of real ones.
# With a second argument it runs on a virtual X display (Xvfb), takes a
# screenshot of the whole screen into that file after a few seconds and ends.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cameras=${1:-2}
shot=${2:-}
bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$top/build"

export VCAM_CAMERAS=$cameras
# Sheets lying on the desk: the first camera looks at a slightly turned
# page, the others at two pages side by side.
export VCAM_0_SCENE=${VCAM_0_SCENE:-"sheets:0.5,0.5,0.5,0.72,8"}
for ((i = 1; i < cameras; i++)); do
  var="VCAM_$((2 * i))_SCENE"
  export "$var=${!var:-sheets:0.3,0.5,0.35,0.6,-5;0.72,0.5,0.35,0.6,12}"
done
export LD_PRELOAD="$top/build/tools/virtualcam/libvirtualcam.so${LD_PRELOAD:+:$LD_PRELOAD}"

if [ -z "$shot" ]; then
  exec "$top/build/brivora"
fi

xvfb-run -a -s "-screen 0 1280x800x24" bash -c '
  "$1" & pid=$!
  sleep "${SHOT_DELAY:-6}"
  LD_PRELOAD= import -window root "$2"
  kill $pid; wait $pid 2>/dev/null || true
' _ "$top/build/brivora" "$(realpath -m "$shot")"
echo "Screenshot: $shot"
