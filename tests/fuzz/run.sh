#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in their own build directory and runs each for a set
# time (or a set number of runs) on a working copy of its seed corpus.
#   FUZZ_BUILD    build directory (default build-fuzz)
#   FUZZ_SECONDS  seconds per target (default 60); FUZZ_RUNS, when set, also a run count (a
#                 target stops at whichever comes first)
#   FUZZ_TARGETS  space-separated subset (default: every fuzz_*.cpp)
#   JOBS          build parallelism (default 2)
# Findings (crash-*, leak-*, timeout-*) are written to $FUZZ_BUILD/fuzz-findings/<target>/.
set -euo pipefail
cd "$(dirname "$0")/../.."

build=${FUZZ_BUILD:-build-fuzz}
seconds=${FUZZ_SECONDS:-60}
jobs=${JOBS:-2}
targets=${FUZZ_TARGETS:-$(cd tests/fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//')}

if ! command -v clang++ >/dev/null; then
  echo "fuzz: clang++ is needed" >&2
  exit 1
fi
CC=clang CXX=clang++ cmake -S . -B "$build" -DFTPS_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" -j "$jobs" --target $targets

status=0
for t in $targets; do
  seeds="tests/fuzz/corpus/${t#fuzz_}"
  work="$build/fuzz-corpus/$t"
  findings="$build/fuzz-findings/$t"
  mkdir -p "$work" "$findings"
  limit=(-max_total_time="$seconds")
  [ -n "${FUZZ_RUNS:-}" ] && limit+=(-runs="$FUZZ_RUNS")
  dict=()
  [ -f "tests/fuzz/$t.dict" ] && dict=(-dict="tests/fuzz/$t.dict")
  echo "fuzz: $t ${limit[*]}"
  if ! "$build/$t" "${limit[@]}" "${dict[@]}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/" "$work" "$seeds" >"$build/fuzz-$t.log" 2>&1; then
    echo "fuzz: $t FAILED, see $build/fuzz-$t.log and $findings/" >&2
    tail -n 40 "$build/fuzz-$t.log" >&2
    status=1
  else
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec)|^#[0-9]+.*DONE|^Done ' "$build/fuzz-$t.log" || true
  fi
done
exit $status
