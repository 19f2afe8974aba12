#!/bin/bash
# package.sh [amd64|arm64]
# Installs what packaging needs, builds the Debian package from debian/ and
# leaves it in dist/, then checks it: lintian reports no error, the desktop
# entry and the AppStream metadata validate, and the files land where the
# program expects them. arm64 is cross-built inside the Debian 12 root that
# scripts/arm64-root.sh keeps under .cache/.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:-amd64}
cd "$top"

case "$arch" in
  amd64|arm64) ;;
  *) echo "usage: $0 [amd64|arm64]" >&2; exit 2 ;;
esac

packaging_tools=(build-essential debhelper dpkg-dev fakeroot lintian desktop-file-utils appstream)
bash scripts/deps.sh "${packaging_tools[@]}"

version=$(dpkg-parsechangelog -l debian/changelog -S Version)
stage="$top/.cache/package/$arch"
src="$stage/brivora-$version"

# A copy of the sources as git sees them (committed and new files, nothing
# ignored), so no build folder or cache goes into the package build.
rm -rf "$stage"
mkdir -p "$src"
git -C "$top" ls-files -z --cached --others --exclude-standard \
  | (cd "$top" && xargs -0 sh -c 'for f; do [ -e "$f" ] && printf "%s\0" "$f"; done' _) \
  | tar -C "$top" --null -T - -cf - | tar -C "$src" -xf -

log="$stage/build.log"
if [ "$arch" = amd64 ]; then
  echo "== building brivora $version for amd64"
  (cd "$src" && DEB_BUILD_OPTIONS="nocheck parallel=2" dpkg-buildpackage -us -uc -b) >"$log" 2>&1 \
    || { tail -40 "$log"; exit 1; }
else
  # The project folder appears inside the root at its own path.
  echo "== cross-building brivora $version for arm64 in $(bash scripts/arm64-root.sh)"
  bash scripts/arm64-root.sh --run "cd '$src' && \
    DEB_BUILD_OPTIONS='nocheck parallel=2' dpkg-buildpackage -us -uc -b -aarm64 -Pcross,nocheck" \
    >"$log" 2>&1 || { tail -40 "$log"; exit 1; }
fi

deb="brivora_${version}_${arch}.deb"
mkdir -p dist
cp "$stage/$deb" dist/
echo "== dist/$deb"

# ---- checks
status=0
contents="$stage/contents"
rm -rf "$contents"
dpkg-deb -x "dist/$deb" "$contents"
for f in usr/bin/brivora usr/lib/brivora/brivora usr/lib/brivora/Resources/brivora.png \
         usr/lib/brivora/Resources/icon/icon_snap_32.png \
         usr/share/applications/io.brivora.Brivora.desktop \
         usr/share/metainfo/io.brivora.Brivora.metainfo.xml \
         usr/share/icons/hicolor/scalable/apps/io.brivora.Brivora.svg \
         usr/share/icons/hicolor/{48x48,64x64,128x128,256x256}/apps/io.brivora.Brivora.png; do
  [ -e "$contents/$f" ] || { echo "missing in the package: /$f"; status=1; }
done
deb_arch=$(dpkg-deb -f "dist/$deb" Architecture)
[ "$deb_arch" = "$arch" ] || { echo "package architecture $deb_arch, wanted $arch"; status=1; }
depends=$(dpkg-deb -f "dist/$deb" Depends)
for need in qt5-image-formats-plugins qttranslations5-l10n fonts-noto-cjk tesseract-ocr-chi-sim tesseract-ocr-eng \
            libqt5multimedia5-plugins libqt5widgets5 libopencv-videoio libtesseract5 libqpdf libavformat; do
  [[ "$depends" == *"$need"* ]] || { echo "Depends lacks $need: $depends"; status=1; }
done

echo "== desktop-file-validate"
desktop-file-validate "$contents/usr/share/applications/io.brivora.Brivora.desktop" || status=1
echo "== appstreamcli validate --no-net"
appstreamcli validate --no-net --pedantic "$contents/usr/share/metainfo/io.brivora.Brivora.metainfo.xml" \
  || status=1
echo "== lintian"
lintian --fail-on error --tag-display-limit 0 "dist/$deb" || status=1

[ $status -eq 0 ] && echo "== package checks passed" || echo "== package checks FAILED"
exit $status
