#!/usr/bin/env bash
# Builds the library and runs its demonstration program.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset demo
exec build/default/examples/zel_demo
