#!/bin/sh
# Longer fuzz sessions of every parser of outside input (not part of the test command, which only
# replays the corpora and fuzzes the grammar for a minute).
#
#   scripts/fuzz.sh --minutes N [--targets "conf policy ..."] [--build DIR]
#
# N minutes of wall-clock time are shared equally by the targets, run one after another (the
# machine's cores are shared). Each target starts from its checked-in corpus; what it learns goes
# to DIR/fuzz-work/<target>, never into the corpus. A crash leaves its input in
# DIR/fuzz-artifacts/<target>/ and makes the script exit 1. The last lines print, per target, the
# seconds fuzzed, the runs made and the crashes found.
set -eu
cd "$(dirname "$0")/.."
minutes=""
targets="conf host_config policy size settings dir_entry tgt_output"
build=build/asan
while [ $# -gt 0 ]; do
  case "$1" in
    --minutes) minutes=$2; shift 2 ;;
    --targets) targets=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    *) echo "usage: $0 --minutes N [--targets \"...\"] [--build DIR]" >&2; exit 2 ;;
  esac
done
case "$minutes" in
  ''|*[!0-9]*) echo "fuzz.sh: --minutes takes a whole number of minutes" >&2; exit 2 ;;
esac
command -v clang++ >/dev/null 2>&1 || { echo "fuzz.sh: needs clang (libFuzzer)" >&2; exit 2; }
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKEL_SANITIZE=ON -DKEL_BUILD_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
set -- $targets
count=$#
for t in $targets; do cmake --build "$build" -j2 --target "${t}_fuzz" >/dev/null; done
seconds=$((minutes * 60 / count))
[ "$seconds" -ge 1 ] || seconds=1
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
summary=""
failed=0
for t in $targets; do
  work="$build/fuzz-work/$t"
  artifacts="$build/fuzz-artifacts/$t"
  mkdir -p "$work" "$artifacts"
  dict=""
  [ -f "tests/fuzz/$t.dict" ] && dict="-dict=tests/fuzz/$t.dict"
  log="$build/fuzz-work/$t.log"
  start=$(date +%s)
  # shellcheck disable=SC2086
  if "$build/tests/${t}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 $dict \
      -artifact_prefix="$artifacts/" "$work" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    crashes=0
  else
    crashes=$(find "$artifacts" -type f | wc -l)
    [ "$crashes" -gt 0 ] || crashes=1
    failed=1
  fi
  took=$(( $(date +%s) - start ))
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
  [ -n "$runs" ] || runs=$(grep -o '#[0-9]*' "$log" | tail -1 | tr -d '#')
  summary="$summary$t seconds=$took runs=${runs:-?} crashes=$crashes
"
done
printf '%s' "$summary"
exit $failed
