#!/usr/bin/env bash
# Builds the bench preset (g++, Release) and runs the benchmark suite: fetch throughput
# and CPU per row of the parameterised range SELECT against the bare rowset (the floor),
# the historian's raw read and SQLite, the typed tables, time to first row, small-query
# and HDA latency with page faults, parse and prepare, peak memory while streaming, and
# CSV loading against SQLite's insert, each with its anchor measured in the same run and
# a summary of the targets.
# Arguments go to the suite, for example
#   scripts/bench.sh --runs 5 --samples 2000000
# `scripts/bench.sh --programs [Google Benchmark arguments]` runs the four separate
# benchmark programs instead (raw read, parse, fetch, SELECT end to end).
# The machine should be otherwise idle.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh"
programs=(corvane_bench_rawread corvane_bench_parse corvane_bench_fetch corvane_bench_e2e)
cmake --preset bench >"$root/build-bench.log" 2>&1 || { tail -n 40 "$root/build-bench.log"; exit 1; }
cmake --build --preset bench --target corvane_bench_suite corvane_bench_latency "${programs[@]}" \
  >>"$root/build-bench.log" 2>&1 || { tail -n 60 "$root/build-bench.log"; exit 1; }
if [[ "${1:-}" == "--programs" ]]; then
  shift
  status=0
  for target in "${programs[@]}"; do
    echo "=== $target ==="
    "$root/build/bench/bench/$target" "$@" || { echo "$target failed"; status=1; }
  done
  exit $status
fi
exec "$root/build/bench/bench/corvane_bench_suite" "$@"
