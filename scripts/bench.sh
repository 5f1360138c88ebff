#!/usr/bin/env bash
# Builds the bench preset (g++, Release) and runs the four benchmarks one after the
# other: the historian's paged raw read, statement parsing, the rowset fetch and SELECT
# end to end through OLE DB. Arguments are passed to every benchmark, for example
#   scripts/bench.sh --benchmark_repetitions=3
# Each prints its own closing ratio; the machine should be otherwise idle.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh"
cmake --preset bench >"$root/build-bench.log" 2>&1 || { tail -n 40 "$root/build-bench.log"; exit 1; }
cmake --build --preset bench --target corvane_bench_rawread corvane_bench_parse corvane_bench_fetch \
  corvane_bench_e2e >>"$root/build-bench.log" 2>&1 || { tail -n 60 "$root/build-bench.log"; exit 1; }
status=0
for target in corvane_bench_rawread corvane_bench_parse corvane_bench_fetch corvane_bench_e2e; do
  echo "=== $target ==="
  "$root/build/bench/bench/$target" "$@" || { echo "$target failed"; status=1; }
done
exit $status
