#!/usr/bin/env bash
# Builds and runs the whole suite in the four builds: default, ASan+UBSan, TSan and 32-bit; in
# each build where the SNMP collector example was built, also its integration test (label
# snmp: the collector against a private snmpd on loopback, 0 mismatches required). The m32
# build has no collector unless the 32-bit net-snmp library is installed.
# Stops at the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh all
for preset in default asan tsan m32; do
  echo "=== ${preset}"
  cmake --workflow --preset "${preset}"
  echo "=== ${preset}: SNMP collector integration test"
  if ctest --test-dir "build/${preset}" -N -L snmp | grep -q '^Total Tests: 0'; then
    echo "(no collector in this build: net-snmp's library for this target is not installed)"
  else
    ctest --test-dir "build/${preset}" -L snmp --output-on-failure
  fi
done
echo "all four builds passed"
