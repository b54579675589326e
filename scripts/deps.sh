#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks for the full test matrix: the 32-bit toolchain
# (g++-multilib), gcovr and valgrind. Idempotent; needs root (or sudo) only when something is missing.
set -euo pipefail
missing=()
[ -d /usr/lib/gcc/x86_64-linux-gnu/12/32 ] || missing+=(g++-multilib)
command -v gcovr >/dev/null 2>&1 || missing+=(gcovr)
command -v valgrind >/dev/null 2>&1 || missing+=(valgrind)
for tool in cmake ninja g++ clang; do
  command -v "$tool" >/dev/null 2>&1 || missing+=("$([ "$tool" = ninja ] && echo ninja-build || echo "$tool")")
done
[ -d /usr/src/googletest ] || missing+=(googletest libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi
