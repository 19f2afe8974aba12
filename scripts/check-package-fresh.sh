#!/bin/bash
# check-package-fresh.sh [screenshot.png]
# The package on machines where nothing is installed, tried in two fresh
# Debian 12 roots under .cache/fresh/ (made by scripts/debian-root.sh, each
# with nothing but git):
#   1. a clean clone of the committed project runs the README's package
#      command (bash scripts/package.sh);
#   2. the .deb it made installs with apt-get in the second root, where no
#      build dependency is present; the installed brivora starts with two
#      virtual cameras on a virtual display from another working directory
#      (screenshot into the given file, default .cache/fresh/installed.png);
#      apt-get purge then leaves none of the package's files behind.
# Needs the virtual camera built on this machine (build/, by the test or run
# command); it is copied into the second root.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cache="$top/.cache/fresh"
shot=$(realpath -m "${1:-$cache/installed.png}")
vcam="$top/build/tools/virtualcam/libvirtualcam.so"
[ -f "$vcam" ] || bash "$top/scripts/build.sh" "$top/build" -- virtualcam
bash "$top/scripts/deps.sh"
mkdir -p "$cache"

mounted=()
xvfb_pid=
cleanup() {
  local i
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null || true
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do umount -l "${mounted[$i]}" 2>/dev/null || true; done
  mounted=()
}
trap cleanup EXIT
mount_system() {
  mount -t proc proc "$1/proc"; mounted+=("$1/proc")
  mount --bind /dev "$1/dev"; mounted+=("$1/dev")
}
inside() {
  local root=$1; shift
  chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"
}

echo "== 1. fresh root with git only: clean clone, bash scripts/package.sh"
build_root="$cache/build-root"
bash "$top/scripts/debian-root.sh" "$build_root"
git clone -q "$top" "$build_root/root/brivora"
mount_system "$build_root"
start=$(date +%s)
inside "$build_root" bash -c 'cd /root/brivora && bash scripts/package.sh'
echo "   package command took $(( $(date +%s) - start )) s"
cleanup
deb=$(ls "$build_root"/root/brivora/dist/brivora_*_amd64.deb)
cp "$deb" "$cache/"
deb_name=$(basename "$deb")

echo "== 2. second fresh root: apt-get install ./$deb_name"
root="$cache/install-root"
bash "$top/scripts/debian-root.sh" "$root"
cp "$deb" "$root/root/"
mount_system "$root"
inside "$root" bash -c "apt-get update -qq && DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq ./root/$deb_name >/dev/null"
for absent in cmake g++ qtbase5-dev libopencv-dev librsvg2-bin; do
  if inside "$root" dpkg-query -W -f='${Status}' "$absent" 2>/dev/null | grep -q 'install ok installed'; then
    echo "build dependency $absent is installed in the install root" >&2; exit 1
  fi
done
inside "$root" dpkg-query -L brivora | sort > "$cache/package-files.txt"
echo "   installed, $(wc -l < "$cache/package-files.txt") paths; no build dependency present"

echo "== starting the installed brivora with two virtual cameras"
display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
mkdir -p "$root/tmp/.X11-unix" "$root/opt/virtualcam" "$root/tmp/elsewhere"
mount --bind /tmp/.X11-unix "$root/tmp/.X11-unix"; mounted+=("$root/tmp/.X11-unix")
cp "$vcam" "$root/opt/virtualcam/"
sleep 2
chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/bin:/bin LANG=C.UTF-8 DISPLAY="$display" \
  XDG_RUNTIME_DIR=/tmp VCAM_CAMERAS=2 \
  VCAM_0_SCENE="sheets:0.5,0.5,0.5,0.72,8" \
  VCAM_2_SCENE="sheets:0.3,0.5,0.35,0.6,-5;0.72,0.5,0.35,0.6,12" \
  LD_PRELOAD=/opt/virtualcam/libvirtualcam.so \
  bash -c 'cd /tmp/elsewhere && exec brivora' > "$cache/installed-run.log" 2>&1 &
program=$!
sleep "${SHOT_DELAY:-10}"
import -display "$display" -window root "$shot"
running=yes
kill -0 "$program" 2>/dev/null || running=no
kill "$program" 2>/dev/null || true
wait "$program" 2>/dev/null || true
echo "   screenshot: $shot (program still running when taken: $running)"
[ "$running" = yes ] || { cat "$cache/installed-run.log"; exit 1; }
[ -f "$root/tmp/elsewhere/system.ini" ] || { echo "no system.ini in the working directory" >&2; exit 1; }
grep -q "/usr/lib/brivora" "$cache/installed-run.log" || { echo "the program did not report its folder" >&2; exit 1; }

echo "== apt-get purge brivora"
inside "$root" bash -c "DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq brivora >/dev/null"
left=0
while read -r path; do
  if [ -e "$root$path" ] && [ ! -d "$root$path" ]; then echo "left behind: $path"; left=1; fi
done < "$cache/package-files.txt"
for dir in /usr/lib/brivora /usr/share/doc/brivora; do
  [ -e "$root$dir" ] && { echo "left behind: $dir"; left=1; }
done
inside "$root" dpkg-query -W brivora >/dev/null 2>&1 && { echo "dpkg still knows brivora"; left=1; }
[ $left -eq 0 ] || exit 1
echo "   purged: none of the package's files are left"
echo "== fresh-root checks passed"
