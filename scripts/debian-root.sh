#!/bin/bash
# debian-root.sh <root folder>
# Makes a fresh Debian 12 (amd64) root with nothing but git installed, from
# a debootstrap tarball cached under .cache/roots/ (downloaded on first use),
# so that "a machine where nothing is installed" can be tried again quickly.
# The root's /proc and /dev are not mounted here; callers mount them around
# what they run inside and unmount them afterwards.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cache="$top/.cache/roots"
mirror=http://deb.debian.org/debian
root=$1
tarball="$cache/bookworm-amd64-git.tgz"

command -v debootstrap >/dev/null || bash "$top/scripts/deps.sh" debootstrap
mkdir -p "$cache"
if [ ! -s "$tarball" ]; then
  echo "Downloading a minimal Debian 12 once into $tarball"
  tmp=$(mktemp -d "$cache/make.XXXXXX")
  debootstrap --variant=minbase --include=git,ca-certificates --make-tarball="$tarball.part" \
    bookworm "$tmp" "$mirror" >/dev/null
  rm -rf "$tmp"
  mv "$tarball.part" "$tarball"
fi

# Never remove a root while something is mounted inside it: a bound
# project folder would be removed with it.
if findmnt -rn -o TARGET | grep -q "^$(realpath -m "$root")/"; then
  echo "$root still has mounts inside; unmount them first" >&2
  exit 1
fi
rm -rf "$root"
mkdir -p "$root"
debootstrap --variant=minbase --include=git,ca-certificates --unpack-tarball="$tarball" \
  bookworm "$root" "$mirror" >/dev/null
cat > "$root/etc/apt/sources.list" <<SOURCES
deb $mirror bookworm main
deb $mirror bookworm-updates main
deb http://deb.debian.org/debian-security bookworm-security main
SOURCES
cp /etc/resolv.conf "$root/etc/resolv.conf"
echo "Fresh root: $root"
