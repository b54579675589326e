#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks. Idempotent; needs root (or sudo) only when
# something is missing.
#
#   scripts/deps.sh demo   the demonstration only: compiler, CMake, Ninja, pkg-config, and
#                          net-snmp's agent (snmpd), tools (snmp) and C library (libsnmp-dev)
#   scripts/deps.sh [all]  the full test matrix besides: the 32-bit toolchain (g++-multilib),
#                          clang with its sanitizer and libFuzzer runtimes, clang-format and
#                          clang-tidy, gcovr, valgrind, GoogleTest and Google Benchmark sources,
#                          and ZeroMQ (the benchmarks' peer)
#
# Installing snmpd would start Debian's own agent service on port 161; a policy-rc.d that
# refuses every service start is put in place for the installation (unless the machine has one
# already), so that the package's service stays stopped. The demonstration and the tests run
# an agent of their own.
set -euo pipefail
what=${1:-all}
case $what in
  demo|all) ;;
  *) echo "usage: scripts/deps.sh [demo|all]" >&2; exit 2 ;;
esac

missing=()
need_cmd() { command -v "$1" >/dev/null 2>&1 || missing+=("$2"); }
need_cmd cmake cmake
need_cmd ninja ninja-build
need_cmd g++ g++
need_cmd pkg-config pkg-config
[ -x /usr/sbin/snmpd ] || missing+=(snmpd)
need_cmd snmpget snmp
[ -f /usr/include/net-snmp/net-snmp-includes.h ] || missing+=(libsnmp-dev)
if [ "$what" = all ]; then
  gcc_major=$(gcc -dumpversion 2>/dev/null | cut -d. -f1 || true)
  [ -n "$gcc_major" ] && [ -d "/usr/lib/gcc/x86_64-linux-gnu/$gcc_major/32" ] || missing+=(g++-multilib)
  need_cmd gcovr gcovr
  need_cmd valgrind valgrind
  need_cmd clang clang
  # The sanitizer and libFuzzer runtimes are only a recommendation of clang's package.
  [ -n "$(find /usr/lib/llvm-*/lib/clang -name 'libclang_rt.fuzzer-x86_64.a' 2>/dev/null)" ] ||
    missing+=(libclang-rt-dev)
  need_cmd clang-format clang-format
  need_cmd clang-tidy clang-tidy
  [ -f /usr/include/zmq.h ] || missing+=(libzmq3-dev)
  [ -d /usr/src/googletest ] || missing+=(googletest libgtest-dev)
  [ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
fi
[ ${#missing[@]} -eq 0 ] && exit 0

echo "deps ($what): installing ${missing[*]}"
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
policy=/usr/sbin/policy-rc.d
placed_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\n# placed by libzel_utils scripts/deps.sh while installing\nexit 101\n' |
    $sudo_cmd tee "$policy" >/dev/null
  $sudo_cmd chmod 755 "$policy"
  placed_policy=1
fi
remove_policy() { [ "$placed_policy" -eq 0 ] || $sudo_cmd rm -f "$policy"; }
trap remove_policy EXIT
export DEBIAN_FRONTEND=noninteractive
$sudo_cmd apt-get update -qq
$sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
# And not at the next boot either, where systemd runs the machine.
case " ${missing[*]} " in
  *" snmpd "*)
    if [ -d /run/systemd/system ]; then $sudo_cmd systemctl disable --now snmpd >/dev/null 2>&1 || true; fi ;;
esac
