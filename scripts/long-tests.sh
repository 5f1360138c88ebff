#!/usr/bin/env bash
# The long checks, run on demand and never by scripts/test.sh:
#  1. builds the linux preset and runs the consumer-path suites (session, procedures,
#     e2e, faults, limits, and the soak when tests/soak exists, for
#     CORVANE_SOAK_SECONDS=600) under Valgrind memcheck: any invalid access, use of
#     uninitialised memory or leak fails the suite;
#  2. builds the linux-asan preset and runs every libFuzzer target for
#     CORVANE_FUZZ_SECONDS (default 600) each, with the same corpus and dictionary as
#     its ctest entry.
# Prints one closing line "N passed, N failed" like scripts/test.sh.
#   CORVANE_LONG_PARTS="valgrind" scripts/long-tests.sh    runs one part only
#   CORVANE_LONG_SUITES="session limits" ...                  the test areas for Valgrind
#   CORVANE_LONG_BUILD_DIR=build/mine ...                     another build tree for the linux preset
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh" || { echo "dependency installation failed"; echo "0 passed, 1 failed"; exit 1; }

parts=${CORVANE_LONG_PARTS:-"valgrind fuzz"}
areas=${CORVANE_LONG_SUITES:-"session procedures e2e faults limits soak"}
jobs=${CORVANE_JOBS:-$(nproc)}
fuzz_seconds=${CORVANE_FUZZ_SECONDS:-600}
export CORVANE_SOAK_SECONDS=${CORVANE_SOAK_SECONDS:-600}
# Valgrind runs the code 20 to 50 times slower and keeps its own shadow memory; the
# limits suite widens its time and memory bounds by this factor.
export CORVANE_LIMITS_SCALE=${CORVANE_LIMITS_SCALE:-40}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

out="$root/build/long-tests"
rm -rf "$out"
mkdir -p "$out/gtest-results" "$out/logs"
entries=()  # name=pass|fail, written as a ctest-style report for summarize-tests.py
results=()

# Configures `preset` in `dir` and builds only the executables whose build-tree paths
# match the extended regular expression `outputs` (the suites or fuzzers to run).
build() {  # preset, dir, outputs
  local preset=$1 dir=$2 outputs=$3
  echo "=== $preset: configure and build ==="
  local log="$out/logs/build-$preset.log"
  if ! cmake --preset "$preset" -B "$dir" >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "$preset: CONFIGURE FAILED (log: $log)"
    return 1
  fi
  local targets
  targets=$(ninja -C "$dir" -t targets all | sed -nE "s#^(${outputs}): CXX_EXECUTABLE_LINKER.*#\1#p" |
            xargs -r -n1 basename | sort -u)
  [ -n "$targets" ] || { echo "$preset: nothing to build"; return 1; }
  # shellcheck disable=SC2086
  if ! cmake --build "$dir" -j "$jobs" --target $targets >>"$log" 2>&1; then
    tail -n 40 "$log"
    echo "$preset: BUILD FAILED (log: $log)"
    return 1
  fi
}

run_entry() {  # name, command...: runs it, notes pass or fail with the time it took
  local name=$1
  shift
  local started=$SECONDS
  if "$@" >"$out/logs/$name.log" 2>&1; then
    entries+=("$name=pass")
    echo "$name: passed ($((SECONDS - started)) s)"
  else
    entries+=("$name=fail")
    echo "$name: FAILED ($((SECONDS - started)) s, log: $out/logs/$name.log)"
    tail -n 30 "$out/logs/$name.log"
  fi
}

if [[ " $parts " == *" valgrind "* ]]; then
  bdir=${CORVANE_LONG_BUILD_DIR:-$root/build/linux}
  area_pattern="tests/($(echo $areas | tr ' ' '|'))/[a-z0-9_]+_tests"
  if build linux "$bdir" "$area_pattern"; then
    for area in $areas; do
      [ -d "$bdir/tests/$area" ] || continue
      for exe in $(find "$bdir/tests/$area" -maxdepth 1 -type f -executable -name '*_tests' | sort); do
        name="valgrind_$(basename "$exe")"
        # The reference historian and the provider start threads; --fair-sched keeps
        # a worker that polls from starving the one it waits for.
        GTEST_OUTPUT="xml:$out/gtest-results/$name.xml" \
          run_entry "$name" valgrind --tool=memcheck --error-exitcode=1 --leak-check=full \
          --errors-for-leak-kinds=definite,indirect,possible --num-callers=40 --fair-sched=yes \
          --suppressions="$root/scripts/valgrind.supp" "$exe"
      done
    done
  else
    results+=("valgrind:build-failed")
  fi
fi

if [[ " $parts " == *" fuzz "* ]]; then
  adir="$root/build/linux-asan"
  if build linux-asan "$adir" "fuzz/[a-z0-9_]+"; then
    # Each fuzz target's command line from its ctest entry, with the longer run time.
    while IFS= read -r line; do
      name=${line%% *}
      read -r -a command <<<"${line#* }"
      run_entry "$name" "${command[@]}" "-max_total_time=$fuzz_seconds"
    done < <(ctest --test-dir "$adir" -N -L fuzz --show-only=json-v1 | python3 -c '
import json, sys
for test in json.load(sys.stdin).get("tests", []):
    command = [a for a in test["command"] if not a.startswith("-max_total_time=")]
    print(test["name"], " ".join(command))
')
  else
    results+=("fuzz:build-failed")
  fi
fi

{
  echo '<?xml version="1.0" encoding="UTF-8"?>'
  echo "<testsuite name=\"long-tests\" tests=\"${#entries[@]}\">"
  for entry in "${entries[@]}"; do
    if [ "${entry#*=}" = pass ]; then
      echo "  <testcase name=\"${entry%=*}\" status=\"run\"/>"
    else
      echo "  <testcase name=\"${entry%=*}\" status=\"fail\"><failure message=\"failed\"/></testcase>"
    fi
  done
  echo '</testsuite>'
} >"$out/ctest-junit.xml"
[ ${#entries[@]} -gt 0 ] && results+=("long-tests:$out")
python3 "$root/scripts/summarize-tests.py" "${results[@]}"
