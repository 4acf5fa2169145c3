#!/bin/sh
# Builds kel once with AddressSanitizer and UndefinedBehaviorSanitizer and runs every test on that
# build (unit, integration with real etcd and tgtd, end-to-end with a real initiator, and the fuzz
# corpus). Uses clang when it is installed so that the grammar's fuzz target is built with libFuzzer.
set -eu
cd "$(dirname "$0")/.."
build=build/asan
if command -v clang++ >/dev/null 2>&1; then
  compilers="-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++"
else
  compilers=""
fi
# shellcheck disable=SC2086
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKEL_SANITIZE=ON -DKEL_BUILD_BENCH=OFF $compilers >/dev/null
cmake --build "$build" -j"$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 900
