#!/usr/bin/env bash
# Builds the library and runs its demonstration program.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --workflow --preset demo
