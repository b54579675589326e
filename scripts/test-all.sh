#!/usr/bin/env bash
# Builds and runs the whole suite in the four builds: default, ASan+UBSan, TSan and 32-bit.
# Stops at the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
for preset in default asan tsan m32; do
  echo "=== ${preset}"
  cmake --workflow --preset "${preset}"
done
echo "all four builds passed"
