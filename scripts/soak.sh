#!/bin/bash
# soak.sh [minutes, default 30] [build folder, default build]
# Runs the real program with two virtual cameras for a long session played
# by tools/soak (every shooting type in turn, a photo every 10 s, a 20 s
# recording every 3 minutes, the secondary window opened and closed), the
# first camera unplugged and plugged back in every 5 minutes (every half
# session when shorter). Then checks: resident memory grew less than 10 MB
# after the first minute, threads and open files are back to their counts
# at the start, and every photo and recording is readable. The session's
# log stays in the build folder as soak.log.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
minutes=${1:-30}
dir=${2:-$top/build}
bash "$top/scripts/build.sh" "$dir" -- brivora virtualcam brivora_modalanswer brivora_soakdriver

seconds=$((minutes * 60))
period=$((seconds < 600 ? seconds / 2 : 300))
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/home" "$work/run" "$work/state"
chmod 700 "$work/run"
log="$work/soak.log"

echo "soak: $minutes minutes, camera unplugged every $period s"
(cd "$work/run" && env -u DISPLAY HOME="$work/home" XDG_RUNTIME_DIR="$work/run" \
  QT_QPA_PLATFORM=offscreen \
  OPENCV_VIDEOIO_PRIORITY_GSTREAMER=0 OPENCV_VIDEOIO_PRIORITY_GPHOTO2=0 \
  VCAM_CAMERAS=2 VCAM_0_SIZES=1280x720,640x480 VCAM_2_SIZES=640x480 \
  VCAM_0_UNPLUG_AFTER=$((period * 30)) VCAM_0_UNPLUG_REPEAT=1 VCAM_0_REPLUG_AFTER_MS=3000 \
  VCAM_STATE_DIR="$work/state" \
  BRIVORA_SOAK_SECONDS=$seconds BRIVORA_SOAK_LOG="$log" BRIVORA_SOAK_OUTPUT="$work/home" \
  BRIVORA_MODAL_LOG="$work/boxes.log" \
  LD_PRELOAD="$dir/tools/virtualcam/libvirtualcam.so:$dir/tests/libbrivora_modalanswer.so:$dir/tools/soak/libbrivora_soakdriver.so" \
  timeout $((seconds + 300)) "$dir/brivora" >"$work/program.log" 2>&1) || {
  echo "soak: the program failed" >&2; tail -n 30 "$work/program.log" >&2; exit 1; }

cp "$log" "$dir/soak.log"
summary=$(grep '^summary' "$log" || true)
if [ -z "$summary" ]; then
  echo "soak: no summary" >&2; tail -n 20 "$log" >&2; exit 1
fi
echo "$summary"
value() { sed -n "s/.* $1=\([0-9]*\).*/\1/p" <<<"$summary"; }
growth=$(( $(value rss_end_kb) - $(value rss_1min_kb) ))
echo "soak: resident memory after the first minute grew $((growth / 1024)) MB ($growth kB)"
[ -s "$work/boxes.log" ] && { echo "soak: warning boxes shown:"; cat "$work/boxes.log"; }
fail=0
[ "$growth" -lt 10240 ] || { echo "soak: memory grew $growth kB" >&2; fail=1; }
[ "$(value threads_end)" = "$(value threads_start)" ] || { echo "soak: threads differ" >&2; fail=1; }
[ "$(value fds_end)" = "$(value fds_start)" ] || { echo "soak: open files differ" >&2; fail=1; }
[ "$(value files)" -gt 0 ] || { echo "soak: no files written" >&2; fail=1; }
[ "$(value unreadable)" = 0 ] || { echo "soak: unreadable files" >&2; grep unreadable "$log" >&2; fail=1; }
exit $fail
