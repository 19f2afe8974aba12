#!/bin/sh
# Runs one test in a fresh working directory (where the settings file
# "system.ini" is looked for) with HOME in a fresh folder (where the
# default output folder goes), and removes both afterwards.
tmp=$(mktemp -d "${TMPDIR:-/tmp}/brivora-test.XXXXXX") || exit 1
mkdir -p "$tmp/home" "$tmp/work" "$tmp/runtime"
chmod 700 "$tmp/runtime"
cd "$tmp/work" || exit 1
rc=0
HOME="$tmp/home" XDG_RUNTIME_DIR="$tmp/runtime" "$@" || rc=$?
# A test that died before stopping its sound server and microphone feeder
# leaves their process ids here.
for pidfile in "$tmp/runtime/pulse/pid" "$tmp/runtime/virtualmic/feeder.pid"; do
  [ -s "$pidfile" ] && kill "$(cat "$pidfile")" 2>/dev/null
done
rm -rf "$tmp"
exit $rc
