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
echo "=== per family"
# gcovr's tracefile, summed per top-level folder (noncode and excluded lines left out).
python3 - "$build/coverage.json" <<'PY'
import json, sys
fam = {}
for f in json.load(open(sys.argv[1]))["files"]:
    t = fam.setdefault(f["file"].split("/")[0], [0, 0, 0, 0])
    for line in f["lines"]:
        if line.get("gcovr/noncode") or line.get("gcovr/excluded"):
            continue
        t[0] += 1
        t[1] += line["count"] > 0
        t[2] += len(line["branches"])
        t[3] += sum(b["count"] > 0 for b in line["branches"])
print(f"{'family':10} {'lines':>16} {'branches':>16}")
for name, (l, lc, b, bc) in sorted(fam.items()):
    print(f"{name:10} {lc:5}/{l:<5} {100*lc/max(l,1):5.1f}% {bc:5}/{b:<5} {100*bc/max(b,1):5.1f}%")
PY
gcovr "${from[@]}" --html-details "$build/html/index.html"
echo "HTML report: $build/html/index.html"
echo "=== totals"
checks=()
if [ "$fail_under" = 1 ]; then
  checks=(--fail-under-line "$line_min" --fail-under-branch "$branch_min")
  echo "(failing under ${line_min} % of lines or ${branch_min} % of branches)"
fi
gcovr "${from[@]}" --print-summary "${checks[@]}" --txt /dev/null
