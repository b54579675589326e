#!/usr/bin/env bash
# clang-format check and clang-tidy over the library and the platform stand-in.
# Uses the default build's compile_commands.json (configured if missing).
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/default/compile_commands.json ] || cmake --preset default >/dev/null
# find, not git ls-files: a checkout may come without git (a fresh machine, a copied tree).
mapfile -t sources < <(find trace ipc_reg lib config data util platform -name '*.cpp' | sort)
mapfile -t formatted < <(find . \( -path ./build -o -path ./.git -o -path ./fuzz/corpus \) -prune \
  -o \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print | sort)
clang-format --dry-run -Werror "${formatted[@]}"
# clang-tidy's own status decides; the filter only drops its "N warnings generated" chatter.
status=0
clang-tidy -p build/default --quiet "${sources[@]}" > build/clang-tidy.log 2>&1 || status=$?
grep -v '^[0-9]* warnings\? generated' build/clang-tidy.log || true
if [ "${status}" -ne 0 ]; then
  echo "lint: clang-tidy found problems (status ${status})" >&2
  exit 1
fi
echo "lint: clean"
