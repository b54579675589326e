#!/usr/bin/env bash
# The whole suite under valgrind memcheck: configures and builds the valgrind preset in
# build/valgrind, then runs every unit test through ctest -T memcheck, and the SNMP collector's
# integration test (label snmp) with the collector itself under valgrind. A test fails
# on any invalid access or use of uninitialised memory, and on any block definitely or indirectly
# lost (options in tests/CMakeLists.txt); valgrind's report of test N is
# build/valgrind/Testing/Temporary/MemoryChecker.N.log.
#
# Left out: abi.exported_symbols and install.consumer, which run cmake scripts (nm, the
# compilers, cmake itself) and none of the library's code in their own process; and the channel
# soak (label soak), whose free hook reads the first bytes of every block freed in the process to
# recognise its own messages, which memcheck reports for blocks never written there. The soak
# runs under ASan and TSan instead.
# The collector's test is a shell script that starts an agent: memcheck would watch the shell,
# so the script runs the collector under valgrind itself (ZEL_COLLECTOR_WRAPPER), with the same
# options; it is skipped like the rest of that test where snmpd cannot run.
# Extra arguments go to the unit run's ctest, e.g. scripts/valgrind.sh -R BadInput
set -euo pipefail
cd "$(dirname "$0")/.."
command -v valgrind >/dev/null || { echo "valgrind.sh: valgrind is not installed" >&2; exit 1; }
cmake --preset valgrind
cmake --build --preset valgrind
ctest --test-dir build/valgrind -T memcheck -L unit -LE soak -E '^(abi|install)\.' -j2 \
  --output-on-failure "$@"
ZEL_COLLECTOR_WRAPPER="valgrind --leak-check=full --errors-for-leak-kinds=definite,indirect \
--show-leak-kinds=definite,indirect --error-exitcode=1 --num-callers=30 \
--suppressions=$PWD/tests/valgrind.supp" \
  ctest --test-dir build/valgrind -L snmp --output-on-failure
