#!/usr/bin/env bash
# The demonstration, on a fresh Debian machine: installs what it needs (scripts/deps.sh demo:
# the compiler, CMake, Ninja, net-snmp's agent, tools and C library), builds the library and
# the SNMP collector example only (the demo preset: no tests, no benchmarks), starts a private
# SNMP agent on 127.0.0.1 at a free high port with a configuration under build/demo/, walks it
# with the collector and prints the table, the cross-check and the summary. The agent is
# stopped by its process id however the script ends.
#
#   scripts/demo.sh [collector options...]     e.g. --csv, --oid 1.3.6.1.2.1
#
# The table goes to build/demo/table.txt and is printed from there, so that a trace line of
# the library (which always echoes to standard output) could never land inside it.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
scripts/deps.sh demo
out=$root/build/demo/run
mkdir -p build/demo
cmake --preset demo >/dev/null
if ! cmake --build --preset demo > build/demo/build.log 2>&1; then
  cat build/demo/build.log
  echo "demo: the build failed (log above, also in build/demo/build.log)" >&2
  exit 1
fi
rm -rf "$out"
mkdir -p "$out"

# shellcheck source=lib/snmp_agent.sh
. scripts/lib/snmp_agent.sh
trap snmp_agent_stop EXIT
trap 'snmp_agent_stop; exit 130' INT TERM
if ! snmp_agent_start "$out"; then
  echo "demo: no SNMP agent to collect from: $SNMP_AGENT_ERROR" >&2
  exit 1
fi
echo "demo: snmpd (pid $SNMP_AGENT_PID) on 127.0.0.1:$SNMP_AGENT_PORT, configuration $out/snmpd.conf"

status=0
build/demo/examples/snmp_collector --agent "127.0.0.1:$SNMP_AGENT_PORT" \
  --community "$SNMP_AGENT_COMMUNITY" --output "$out/table.txt" "$@" 2> "$out/report.txt" || status=$?
# The request first, then the table, then the cross-check and the summary.
sed -n '1{/^request: /p}' "$out/report.txt"
cat "$out/table.txt" 2>/dev/null || true
sed '1{/^request: /d}' "$out/report.txt"
exit "$status"
