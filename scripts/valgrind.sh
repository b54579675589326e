#!/usr/bin/env bash
# The whole suite under valgrind memcheck: configures and builds the valgrind preset in
# build/valgrind, then runs every unit test and the demo through ctest -T memcheck. A test fails
# on any invalid access or use of uninitialised memory, and on any block definitely or indirectly
# lost (options in tests/CMakeLists.txt); valgrind's report of test N is
# build/valgrind/Testing/Temporary/MemoryChecker.N.log.
#
# Left out: abi.exported_symbols and install.consumer, which run cmake scripts (nm, the
# compilers, cmake itself) and none of the library's code in their own process; and the channel
# soak (label soak), whose free hook reads the first bytes of every block freed in the process to
# recognise its own messages, which memcheck reports for blocks never written there. The soak
# runs under ASan and TSan instead.
# Extra arguments go to ctest, e.g. scripts/valgrind.sh -R BadInput
set -euo pipefail
cd "$(dirname "$0")/.."
command -v valgrind >/dev/null || { echo "valgrind.sh: valgrind is not installed" >&2; exit 1; }
cmake --preset valgrind
cmake --build --preset valgrind
ctest --test-dir build/valgrind -T memcheck -L 'unit|demo' -LE soak -E '^(abi|install)\.' -j2 \
  --output-on-failure "$@"
