#!/bin/bash
# arm64-root.sh                 makes (once) and prints the cross-build root
# arm64-root.sh --run <command> runs a shell command inside it as root
#
# OpenCV's arm64 development package cannot be installed beside the amd64
# one on one system, so arm64 builds happen in an amd64 Debian 12 root kept
# under .cache/arm64-root, with the arm64 architecture added, the cross
# compiler, the Qt host tools and the arm64 libraries. The project folder is
# mounted into the root at its own path, so that build folders have the same
# names inside and outside. The arm64 tests run inside too, each arm64
# executable started explicitly through qemu-aarch64-static: run outside with
# the root as qemu's library prefix, Qt could not see its plug-ins, because
# qemu 7.2 does not look up statx() paths under the prefix.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
root="$top/.cache/arm64-root"

packages=(
  crossbuild-essential-arm64 cmake make pkg-config zlib1g-dev:arm64
  qtbase5-dev-tools librsvg2-bin
  qtbase5-dev:arm64 libopencv-dev:arm64 libjpeg-dev:arm64
  qtmultimedia5-dev:arm64 libqt5multimedia5-plugins:arm64
  libavformat-dev:arm64 libavcodec-dev:arm64 libavutil-dev:arm64
  libtesseract-dev:arm64 libqpdf-dev:arm64 tesseract-ocr-chi-sim tesseract-ocr-eng qpdf
  qt5-image-formats-plugins:arm64 qttranslations5-l10n fonts-noto-cjk
  poppler-utils
  build-essential debhelper dpkg-dev fakeroot
  qemu-user-static xvfb xauth imagemagick pulseaudio pulseaudio-utils
)
stamp="$root/.brivora-ready"

prepare() {
  [ -x "$root/usr/bin/apt-get" ] || bash "$top/scripts/debian-root.sh" "$root" >&2
  run_inside "dpkg --add-architecture arm64 && apt-get update -qq && \
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends ${packages[*]} >/dev/null" >&2
  echo "${packages[*]}" > "$stamp"
}

mounted=()
unmount_all() {
  local i
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do umount -l "${mounted[$i]}" 2>/dev/null || true; done
  mounted=()
}
trap unmount_all EXIT

bind() {
  mkdir -p "$2"
  mount --bind "$1" "$2"
  mounted+=("$2")
}

run_inside() {
  mount -t proc proc "$root/proc"; mounted+=("$root/proc")
  bind /dev "$root/dev"
  bind /dev/pts "$root/dev/pts"
  [ -d /dev/shm ] && bind /dev/shm "$root/dev/shm"
  bind "$top" "$root$top"
  local rc=0
  chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
    bash -c "$1" || rc=$?
  unmount_all
  return $rc
}

if [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "${packages[*]}" ]; then
  prepare
fi

if [ "${1:-}" = --run ]; then
  run_inside "$2"
else
  echo "$root"
fi
