#!/usr/bin/env bash
# Builds the fuzz preset (clang, libFuzzer, ASan+UBSan) and runs each fuzz target for a while,
# one after the other, each from a scratch copy of its committed seed corpus (fuzz/corpus/<name>/
# is only read, never grown). Fails when a target reports a finding (a failed check, a crash, a
# sanitizer report, a leak, a timeout or running out of memory); the input that caused it is kept
# as build/fuzz/artifacts/<name>-<kind>-<hash>.
#
#   scripts/fuzz.sh [seconds per target (default 30)] [target ...]   (default: every fuzz/*.cpp)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
[ $# -gt 0 ] && shift
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in fuzz/*.cpp; do
    name=$(basename "$src" .cpp)
    [ "$name" = replay_main ] || targets+=("$name")
  done
fi

cmake --preset fuzz
cmake --build --preset fuzz

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts=$PWD/build/fuzz/artifacts
mkdir -p "$artifacts"
failed=()
for t in "${targets[@]}"; do
  mkdir -p "$work/$t"
  cp -R "fuzz/corpus/$t/." "$work/$t/"
  echo "=== fuzz $t: ${seconds} s"
  start=$SECONDS
  if build/fuzz/fuzz/fuzz_"$t" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$artifacts/$t-" "$work/$t" > "$work/$t.log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$t.log")
    echo "fuzz $t: no finding in ${runs:-?} runs ($((SECONDS - start)) s)"
  else
    echo "fuzz $t: FINDING"
    tail -n 60 "$work/$t.log"
    failed+=("$t")
  fi
done
if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz: findings in ${failed[*]}; inputs in $artifacts"
  exit 1
fi
echo "fuzz: ${#targets[@]} targets, no finding"
