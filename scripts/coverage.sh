#!/usr/bin/env bash
# Line and branch coverage of the library's own code (trace/ ipc_reg/ lib/ config/ data/ util/;
# not the platform stand-in, the tests, the benchmarks or the fuzz targets) under the unit suite.
#
# Runs the coverage preset's steps (configure, build, test) in build/coverage after removing the
# counts of any earlier run, then prints gcovr's per-file table and the totals and writes an
# HTML report to build/coverage/html/index.html.
#
#   scripts/coverage.sh                 report only (exit status 0 whatever the figures)
#   scripts/coverage.sh --fail-under    also fail when line coverage is below 95 % or branch
#                                       coverage below 90 % (ZEL_COVERAGE_FAIL_UNDER=1 does the same)
#   --line N / --branch N               other thresholds (ZEL_COVERAGE_LINE, ZEL_COVERAGE_BRANCH)
#   --no-build                          report on the counts already in build/coverage
#
# Branches are counted as gcov counts them at -O0, leaving out those gcovr can tell are
# unreachable or exception paths.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build/coverage

fail_under=${ZEL_COVERAGE_FAIL_UNDER:-0}
line_min=${ZEL_COVERAGE_LINE:-95}
branch_min=${ZEL_COVERAGE_BRANCH:-90}
run=1
while [ $# -gt 0 ]; do
  case $1 in
    --fail-under) fail_under=1 ;;
    --line) line_min=$2; shift ;;
    --branch) branch_min=$2; shift ;;
    --no-build) run=0 ;;
    -h|--help) sed -n '2,17p' "$0"; exit 0 ;;
    *) echo "coverage.sh: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

if [ "$run" -eq 1 ]; then
  cmake --preset coverage
  cmake --build --preset coverage
  find "$build" -name '*.gcda' -delete
  ctest --preset coverage
fi

families='(trace|ipc_reg|lib|config|data|util)'
mkdir -p "$build/html"
# One pass over the gcov data into a tracefile; the reports are made from it.
gcovr --root "$root" --object-directory "$build" --filter "$root/$families/" \
  --exclude-unreachable-branches --exclude-throw-branches --json "$build/coverage.json"
from=(--root "$root" --add-tracefile "$build/coverage.json")
echo "=== lines per file"
gcovr "${from[@]}" --sort-uncovered --txt
echo "=== branches per file"
gcovr "${from[@]}" --sort-uncovered --branches --txt
gcovr "${from[@]}" --html-details "$build/html/index.html"
echo "HTML report: $build/html/index.html"
echo "=== totals"
checks=()
if [ "$fail_under" = 1 ]; then
  checks=(--fail-under-line "$line_min" --fail-under-branch "$branch_min")
  echo "(failing under ${line_min} % of lines or ${branch_min} % of branches)"
fi
gcovr "${from[@]}" --print-summary "${checks[@]}" --txt /dev/null
