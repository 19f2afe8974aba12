#!/bin/bash
# Installs the Debian 12 packages needed to build, run and test the program.
# Quiet and quick when everything is already there. Further package names
# given as arguments are installed the same way (the packaging tools).
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  qtbase5-dev qtbase5-dev-tools
  qt5-image-formats-plugins
  libopencv-dev libjpeg-dev
  librsvg2-bin
  libbenchmark-dev
  poppler-utils
  xvfb xauth imagemagick
  fonts-noto-cjk
  qtmultimedia5-dev libqt5multimedia5-plugins
  libavformat-dev libavcodec-dev libavutil-dev
  zlib1g-dev
  pulseaudio pulseaudio-utils
  libtesseract-dev tesseract-ocr-chi-sim tesseract-ocr-eng
  libqpdf-dev qpdf
  clang-14 libclang-rt-14-dev
  qttranslations5-l10n
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
