#!/usr/bin/env bash
# Builds and runs every test suite: native, AddressSanitizer + UndefinedBehaviorSanitizer,
# ThreadSanitizer (the suites labelled "threads") and the Windows build under Wine.
# Prints one closing line "N passed, N failed" summed over all of them and exits
# non-zero when anything failed or did not build.
#   CORVANE_PRESETS="linux windows" scripts/test.sh   runs a subset.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh" || { echo "dependency installation failed"; echo "0 passed, 1 failed"; exit 1; }

export CORVANE_WERROR=ON
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
presets=${CORVANE_PRESETS:-"linux linux-asan linux-tsan windows"}
jobs=${CORVANE_JOBS:-$(nproc)}
results=()
for preset in $presets; do
  echo "=== $preset: configure and build ==="
  bdir="$root/build/$preset"
  if ! cmake --preset "$preset" >"$root/build-$preset.log" 2>&1 ||
     ! cmake --build --preset "$preset" -j "$jobs" >>"$root/build-$preset.log" 2>&1; then
    tail -n 60 "$root/build-$preset.log"
    echo "$preset: BUILD FAILED (full log: build-$preset.log)"
    results+=("$preset:build-failed")
    continue
  fi
  echo "=== $preset: test ==="
  rm -f "$bdir"/gtest-results/*.xml "$bdir/ctest-junit.xml"
  label_args=()
  [ "$preset" = linux-tsan ] && label_args=(-L threads)
  ctest --preset "$preset" -j "$jobs" "${label_args[@]}" --output-junit "$bdir/ctest-junit.xml" 2>&1 | tail -n 40
  results+=("$preset:$bdir")
done
# The conversions and time functions of the POSIX layer against Wine's system DLLs:
# both builds ran the probes; compare their outputs.
if [[ " ${results[*]} " == *" linux:$root/build/linux "* && " ${results[*]} " == *" windows:$root/build/windows "* ]]; then
  echo "=== differential: POSIX layer against Wine ==="
  if "$root/scripts/differential.sh" "$root/build/linux" "$root/build/windows" | tee "$root/build/differential.txt"; then
    results+=("differential:passed")
  else
    results+=("differential:failed")
  fi
fi
python3 "$root/scripts/summarize-tests.py" "${results[@]}"
