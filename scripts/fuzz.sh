#!/bin/bash
# fuzz.sh [seconds per target] [build folder]
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on) and runs each for the given time (30 s by
# default), starting from the corpus kept in fuzz/corpus/<target>. New
# inputs go to a scratch folder, so the kept corpus only changes by hand:
#   fuzz/merge: build-fuzz/fuzz/<target> -merge=1 fuzz/corpus/<target> <scratch>
# Fails on the first finding; the input that caused it is left in the
# build folder as crash-*, leak-*, oom-* or timeout-*.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
dir=${2:-$top/build-fuzz}
targets=(fuzz_frame fuzz_cutout fuzz_config)

CC=clang-14 CXX=clang++-14 bash "$top/scripts/build.sh" "$dir" -DBRIVORA_FUZZ=ON -- "${targets[@]}"

export QT_QPA_PLATFORM=offscreen
export ASAN_OPTIONS=detect_leaks=1
export LSAN_OPTIONS=suppressions=$top/tests/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for t in "${targets[@]}"; do
  scratch=$(mktemp -d)
  log=$(mktemp)
  mkdir -p "$top/fuzz/corpus/$t"
  echo "fuzzing $t for $seconds s"
  # Frames up to 4000x3000 take a while each: a generous time per input.
  if ! "$dir/fuzz/$t" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=4096 \
      -print_final_stats=1 -artifact_prefix="$dir/" "$scratch" "$top/fuzz/corpus/$t" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "fuzz: finding in $t (the input is left in $dir)" >&2
    rm -rf "$scratch" "$log"
    exit 1
  fi
  grep -E "^stat::(number_of_executed_units|peak_rss_mb)" "$log" || true
  rm -rf "$scratch" "$log"
done
