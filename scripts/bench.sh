#!/bin/sh
# Runs benchmark programs N times, interleaved (program A, B, ..., then A, B, ... again), and
# prints every run's "ratio:" lines and then the median of each ratio over the N runs.
#
#   scripts/bench.sh [-n N] program [program...] [-- benchmark options]
#
# N defaults to 3. Options after "--" go to every program (e.g. --benchmark_filter=lookup).
# Example: scripts/bench.sh -n 5 build/default/bench/bench_hashset -- --benchmark_filter=lookup
set -eu
n=3
if [ "${1:-}" = "-n" ]; then
  n=$2
  shift 2
fi
progs=""
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  progs="$progs $1"
  shift
done
[ "${1:-}" = "--" ] && shift
if [ -z "$progs" ]; then
  echo "usage: $0 [-n N] program [program...] [-- benchmark options]" >&2
  exit 2
fi
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
i=1
while [ "$i" -le "$n" ]; do
  for p in $progs; do
    name=$(basename "$p")
    echo "== run $i: $name" >&2
    if ! "$p" "$@" --benchmark_color=false >"$out.run" 2>&1; then
      echo "$name failed in run $i:" >&2
      tail -n 20 "$out.run" >&2
      status=1
    fi
    grep '^ratio: ' "$out.run" | sed "s|^ratio: |$name $i |" | tee -a "$out"
  done
  i=$((i + 1))
done
rm -f "$out.run"
echo
echo "median of $n runs (program, case, ratio; see the program's ratio lines for the meaning):"
# Fields: program run case... = value ...
awk '{
  key = $1; for (f = 3; f <= NF && $f != "="; f++) key = key " " $f;
  v = $(f + 1); if (v == "n/a") next;
  vals[key] = vals[key] " " v
} END {
  for (k in vals) {
    m = split(vals[k], a, " ");
    for (x = 1; x <= m; x++) for (y = x + 1; y <= m; y++) if (a[y] + 0 < a[x] + 0) { t = a[x]; a[x] = a[y]; a[y] = t }
    med = (m % 2) ? a[(m + 1) / 2] : (a[m / 2] + a[m / 2 + 1]) / 2;
    printf "%s = %.3f  (runs:%s)\n", k, med, vals[k]
  }
}' "$out" | sort
exit $status
