#!/bin/sh
# The test runner's emulator: starts an arm64 test program under
# qemu-aarch64-static, with the library of ARM64_NOPIDFD (see nopidfd.c)
# preloaded ahead of the test's own preloads so that it can start
# subprocesses.
if [ -n "$ARM64_NOPIDFD" ]; then
  LD_PRELOAD="$ARM64_NOPIDFD${LD_PRELOAD:+:$LD_PRELOAD}"
  export LD_PRELOAD
fi
# The tests learn that they run emulated: checks of real-time pace then
# measure the emulator, not the program, and are skipped.
BRIVORA_EMULATED=1
export BRIVORA_EMULATED
exec /usr/bin/qemu-aarch64-static "$@"
