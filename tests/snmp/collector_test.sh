#!/usr/bin/env bash
# The SNMP collector against a private snmpd on 127.0.0.1 (scripts/lib/snmp_agent.sh):
#  - walks mib-2 and the enterprise subtree as CSV: exit 0, every value compared and none
#    mismatched;
#  - the agent's configured values come out in the library's formats (a comma and quotes:
#    quoted and escaped; a backslash: escaped; a line feed: quoted, the record spans lines);
#  - the default subtrees as a table: exit 0 and 0 mismatches;
#  - --help, an unknown option, and an agent that is not there (exit 3 and one line saying why).
# Exit 77 (skipped) only when snmpd cannot run here. ZEL_COLLECTOR_WRAPPER (e.g. a valgrind
# command line) runs the collector under it.
#
#   collector_test.sh COLLECTOR WORKDIR
set -uo pipefail
collector=$1
work=$2
here=$(cd "$(dirname "$0")" && pwd)
read -r -a wrapper <<< "${ZEL_COLLECTOR_WRAPPER:-}"
rm -rf "$work"
mkdir -p "$work"

# shellcheck source=../../scripts/lib/snmp_agent.sh
. "$here/../../scripts/lib/snmp_agent.sh"
trap snmp_agent_stop EXIT
if ! snmp_agent_start "$work"; then
  echo "SKIP: snmpd cannot run here: $SNMP_AGENT_ERROR"
  exit 77
fi
agent=127.0.0.1:$SNMP_AGENT_PORT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

run() { # run NAME ARGS...: the collector's status in $status, its report in $work/NAME.err
  local name=$1
  shift
  "${wrapper[@]}" "$collector" "$@" > "$work/$name.out" 2> "$work/$name.err"
  status=$?
  echo "--- $name: exit $status"
  cat "$work/$name.err"
}

run walk --agent "$agent" --community "$SNMP_AGENT_COMMUNITY" --oid 1.3.6.1.2.1 \
  --oid 1.3.6.1.4.1 --csv --output "$work/walk.csv"
[ "$status" -eq 0 ] || fail "walk: exit $status"
grep -Eq '^cross-check against net-snmp: [1-9][0-9]+ values compared, 0 mismatches' "$work/walk.err" ||
  fail "walk: no clean cross-check line"
grep -q '^summary: ' "$work/walk.err" || fail "walk: no summary"
[ ! -s "$work/walk.out" ] || fail "walk: standard output not empty with --output"
head -n 1 "$work/walk.csv" | grep -qx 'oid,type,value' || fail "walk: no CSV header"
values=$(sed -n 's/^summary: \([0-9]*\) values.*/\1/p' "$work/walk.err")
# CSV records, not lines: a quoted value may hold line feeds. A record ends at a line feed
# outside quotes; escaped backslashes and quotes are dropped before counting quotes.
records=$(awk '{ gsub(/\\\\/, ""); gsub(/\\"/, ""); q = (q + gsub(/"/, "")) % 2
  if (!q) n++ } END { print n - 1 }' "$work/walk.csv")
[ "${values:-0}" -eq "$records" ] ||
  fail "walk: summary says ${values:-?} values, the CSV has $records records"
expect() { # expect LINE: the CSV holds exactly this line
  grep -qxF -- "$1" "$work/walk.csv" || fail "walk: expected line not found: $1"
}
expect '1.3.6.1.2.1.1.5.0,STRING,zel-demo-agent'
expect '1.3.6.1.2.1.1.6.0,STRING,"\"Lab 2, rack 3\""'
expect '1.3.6.1.2.1.1.4.0,STRING,ops\\team <ops@example.org>'
expect '1.3.6.1.2.1.1.7.0,INTEGER,72'
expect '1.3.6.1.2.1.4.20.1.1.127.0.0.1,IpAddress,"127.0.0.1"'
# nsExtendOutputFull of the agent's two-line extend command: one quoted value over two lines.
grep -qzF -- $'8.122.101.108.108.105.110.101.115,STRING,"first line\nsecond line"\n' "$work/walk.csv" ||
  fail "walk: the two-line value is not one quoted record"
grep -Eq '^1\.3\.6\.1\.2\.1\.1\.2\.0,OID,1\.3\.6\.1\.4\.1\.[0-9.]+$' "$work/walk.csv" ||
  fail "walk: sysObjectID not rendered as a dotted OID"

run table --agent "$agent" --community "$SNMP_AGENT_COMMUNITY"
[ "$status" -eq 0 ] || fail "table: exit $status"
grep -q ', 0 mismatches' "$work/table.err" || fail "table: mismatches"
grep -Eq '^1\.3\.6\.1\.2\.1\.1\.5\.0 +STRING +zel-demo-agent$' "$work/table.out" ||
  fail "table: no sysName row"

run help --help
[ "$status" -eq 0 ] && grep -q -- '--agent HOST:PORT' "$work/help.out" || fail "--help"
run unknown --no-such-option
[ "$status" -eq 2 ] || fail "unknown option: exit $status"

# An agent that is not there: a port nobody answers on (the agent's own, once stopped).
snmp_agent_stop
run absent --agent "$agent" --community "$SNMP_AGENT_COMMUNITY"
[ "$status" -eq 3 ] || fail "absent agent: exit $status, expected 3"
grep -q "^snmp_collector: no answer from the agent at $agent" "$work/absent.err" ||
  fail "absent agent: no one-line reason"

if [ "$failures" -ne 0 ]; then
  echo "$failures failures"
  exit 1
fi
echo "collector test passed"
