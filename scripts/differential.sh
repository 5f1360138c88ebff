#!/usr/bin/env bash
# Compares the differential probes' outputs of a native build with those of the Windows
# build (run under Wine): scripts/differential.sh <linux build dir> <windows build dir>
# A probe is a probe_<name>.cpp in tests/differential (the POSIX layer against Wine's
# system DLLs) or tests/interop (the provider read by a consumer the Windows way), whose
# run writes <build>/differential/<name>.txt. For each probe it prints the number of
# cases, how many are equal, how many differ in a way listed in the probe's folder in
# expected-differences-<name>.txt, and every unexpected difference. Exits non-zero when
# a probe's output is missing on either side or any unexpected difference exists.
set -uo pipefail
if [ $# -ne 2 ]; then
  echo "usage: $0 <linux build dir> <windows build dir>" >&2
  exit 2
fi
root=$(cd "$(dirname "$0")/.." && pwd)
exec python3 - "$1/differential" "$2/differential" "$root/tests/differential" "$root/tests/interop" <<'PY'
import glob
import os
import sys

native_dir, windows_dir = sys.argv[1:3]
source_dirs = sys.argv[3:]


def read_cases(path):
    cases = {}
    order = []
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            line = line.rstrip("\r\n")
            if not line:
                continue
            case_id, _, result = line.partition("\t")
            if case_id not in cases:
                order.append(case_id)
            cases[case_id] = result
    return cases, order


def read_expected(path):
    """Lines "<case id><TAB><reason>"; '#' starts a comment line. A reason is required."""
    expected, problems = {}, []
    if not os.path.exists(path):
        return expected, problems
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\r\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            case_id, _, reason = line.partition("\t")
            if not reason.strip():
                problems.append(f"{os.path.basename(path)}:{number}: no reason given for '{case_id}'")
                continue
            expected[case_id] = reason.strip()
    return expected, problems


probes = sorted((os.path.splitext(os.path.basename(p))[0][len("probe_"):], d)
                for d in source_dirs for p in glob.glob(os.path.join(d, "probe_*.cpp")))
failed = False
totals = [0, 0, 0, 0]
for probe, source_dir in probes:
    native_path = os.path.join(native_dir, f"{probe}.txt")
    windows_path = os.path.join(windows_dir, f"{probe}.txt")
    missing = [p for p in (native_path, windows_path) if not os.path.exists(p)]
    if missing:
        print(f"{probe}: output missing: {', '.join(missing)}")
        failed = True
        continue
    native, order = read_cases(native_path)
    windows, windows_order = read_cases(windows_path)
    expected, problems = read_expected(os.path.join(source_dir, f"expected-differences-{probe}.txt"))
    for p in problems:
        print(f"{probe}: {p}")
    failed |= bool(problems)
    for case_id in windows_order:
        if case_id not in native:
            order.append(case_id)
    equal = listed = 0
    unexpected = []
    stale = []
    for case_id in order:
        a = native.get(case_id, "(missing)")
        b = windows.get(case_id, "(missing)")
        if a == b:
            equal += 1
            if case_id in expected:
                stale.append(case_id)
        elif case_id in expected:
            listed += 1
        else:
            unexpected.append((case_id, a, b))
    print(f"{probe}: {len(order)} cases, {equal} equal, {listed} listed differences, "
          f"{len(unexpected)} unexpected differences")
    for case_id, a, b in unexpected:
        print(f"  {case_id}\n    native: {a}\n    wine:   {b}")
    for case_id in stale:
        print(f"  note: listed but now equal: {case_id}")
    totals[0] += len(order)
    totals[1] += equal
    totals[2] += listed
    totals[3] += len(unexpected)
    failed |= bool(unexpected)
if len(probes) > 1:
    print(f"all probes: {totals[0]} cases, {totals[1]} equal, {totals[2]} listed differences, "
          f"{totals[3]} unexpected differences")
if not probes:
    print("no probes found")
sys.exit(1 if failed else 0)
PY
