# shellcheck shell=bash
# A private SNMP agent for the demonstration and the integration test: net-snmp's snmpd in the
# foreground on 127.0.0.1 at a free high port, with a configuration written under the caller's
# folder (a read-only community on loopback only, no configuration files of the machine, no
# persistent state outside that folder). Source this file, then:
#
#   snmp_agent_start DIR     starts the agent; sets SNMP_AGENT_PID and SNMP_AGENT_PORT.
#                            Returns 0, or 1 with the reason in SNMP_AGENT_ERROR.
#   snmp_agent_stop          stops that agent by its process id (safe to call more than once).
#
# The caller traps EXIT (and INT, TERM) with snmp_agent_stop so that the agent never outlives it.
SNMP_AGENT_PID=""
SNMP_AGENT_PORT=""
SNMP_AGENT_ERROR=""
SNMP_AGENT_COMMUNITY=${SNMP_AGENT_COMMUNITY:-zeldemo}

snmp_agent_stop() {
  if [ -n "$SNMP_AGENT_PID" ]; then
    kill "$SNMP_AGENT_PID" 2>/dev/null || true
    wait "$SNMP_AGENT_PID" 2>/dev/null || true
    SNMP_AGENT_PID=""
  fi
}

snmp_agent_start() {
  local dir=$1 snmpd port try
  snmpd=$(command -v snmpd || echo /usr/sbin/snmpd)
  if [ ! -x "$snmpd" ]; then
    SNMP_AGENT_ERROR="snmpd is not installed (Debian package snmpd)"
    return 1
  fi
  if ! command -v snmpget >/dev/null 2>&1; then
    SNMP_AGENT_ERROR="snmpget is not installed (Debian package snmp)"
    return 1
  fi
  mkdir -p "$dir/persist"
  # Values with the characters the renderings treat specially: a comma and double quotes
  # (quoted and escaped), a backslash (escaped), and a line feed (quoted, so that a CSV
  # record may span lines): the full output of a two-line extend command.
  printf '#!/bin/sh\nprintf "first line\\nsecond line"\n' > "$dir/two_lines.sh"
  cat > "$dir/snmpd.conf" <<CONF
rocommunity $SNMP_AGENT_COMMUNITY 127.0.0.1
sysLocation "Lab 2, rack 3"
sysContact ops\\team <ops@example.org>
sysName zel-demo-agent
sysServices 72
extend zellines /bin/sh $dir/two_lines.sh
CONF
  for try in 1 2 3 4 5 6 7 8; do
    port=$((20000 + (RANDOM % 40000)))
    # -f: stay in the foreground, so that $! is the agent itself; -C: no configuration file
    # but ours; -Lf: its log into the folder.
    MIBS="" SNMP_PERSISTENT_DIR="$dir/persist" \
      "$snmpd" -f -C -c "$dir/snmpd.conf" -Lf "$dir/snmpd.log" "udp:127.0.0.1:$port" &
    SNMP_AGENT_PID=$!
    local waited
    for waited in $(seq 1 50); do
      if ! kill -0 "$SNMP_AGENT_PID" 2>/dev/null; then
        break # it exited: most likely the port was taken
      fi
      if MIBS="" snmpget -v2c -c "$SNMP_AGENT_COMMUNITY" -t 0.2 -r 0 "127.0.0.1:$port" \
          1.3.6.1.2.1.1.5.0 >/dev/null 2>&1; then
        SNMP_AGENT_PORT=$port
        return 0
      fi
    done
    snmp_agent_stop
  done
  SNMP_AGENT_ERROR="snmpd did not start on 127.0.0.1 (last lines of $dir/snmpd.log: $(tail -n 2 "$dir/snmpd.log" 2>/dev/null | tr '\n' ' '))"
  return 1
}
