#!/usr/bin/env python3
"""Sums the GoogleTest cases of every preset's ctest run into one closing line.

Each argument is PRESET:BUILD_DIR (or PRESET:build-failed, or NAME:passed / NAME:failed
for a check that is one case, such as the differential comparison). A ctest entry with a
GoogleTest report counts its cases; an entry that failed without a failing case (a crash,
a leak found at exit, a timeout) counts one more failure; an entry without a report
counts as one case. A preset that did not build counts as one failure.
"""
import os
import sys
import xml.etree.ElementTree as ET


# (entry, its last lines of output) for every ctest entry that failed.
tails = []


def output_tail(case, lines=20):
    """The last lines a failed ctest entry printed, so that a failure seen only in a log
    of the whole run (a crash, a fuzzer's finding, a timeout) says what happened."""
    out = case.find("system-out")
    text = (out.text or "") if out is not None else ""
    return [line for line in text.splitlines() if line.strip()][-lines:]


def summarize(preset, build_dir):
    passed = failed = skipped = 0
    failures = []
    junit = os.path.join(build_dir, "ctest-junit.xml")
    if not os.path.exists(junit):
        return 0, 1, 0, [f"{preset}: no ctest results"]
    for case in ET.parse(junit).getroot().iter("testcase"):
        name = case.get("name")
        status = case.get("status", "")
        ctest_failed = status not in ("run", "pass", "passed", "") or case.find("failure") is not None
        if case.find("skipped") is not None or status in ("notrun", "disabled"):
            skipped += 1
            continue
        report = os.path.join(build_dir, "gtest-results", f"{name}.xml")
        if os.path.exists(report):
            try:
                root = ET.parse(report).getroot()
            except ET.ParseError:
                root = None
            if root is not None:
                total = fail = skip = 0
                for tc in root.iter("testcase"):
                    if tc.get("result") == "skipped" or tc.get("status") == "notrun":
                        skip += 1
                    elif tc.find("failure") is not None:
                        fail += 1
                        failures.append(f"{preset}: {name}: {tc.get('classname')}.{tc.get('name')}")
                    else:
                        total += 1
                passed += total
                failed += fail
                skipped += skip
                if ctest_failed:
                    tails.append((f"{preset}: {name}", output_tail(case)))
                if ctest_failed and fail == 0:
                    failed += 1
                    failures.append(f"{preset}: {name}: the process failed after its cases (crash, leak or timeout)")
                continue
        if ctest_failed:
            failed += 1
            failures.append(f"{preset}: {name}")
            tails.append((f"{preset}: {name}", output_tail(case)))
        else:
            passed += 1
    return passed, failed, skipped, failures


def main(args):
    total_p = total_f = total_s = 0
    all_failures = []
    for arg in args:
        preset, _, build_dir = arg.partition(":")
        if build_dir == "build-failed":
            p, f, s, fl = 0, 1, 0, [f"{preset}: build failed"]
        elif build_dir == "passed":
            p, f, s, fl = 1, 0, 0, []
        elif build_dir == "failed":
            p, f, s, fl = 0, 1, 0, [f"{preset}: see its output above"]
        else:
            p, f, s, fl = summarize(preset, build_dir)
        print(f"{preset}: {p} passed, {f} failed, {s} skipped")
        total_p, total_f, total_s = total_p + p, total_f + f, total_s + s
        all_failures += fl
    for entry, lines in tails:
        print(f"--- the last lines {entry} printed ---")
        for line in lines:
            print(f"    {line}")
    for line in all_failures:
        print(f"FAILED {line}")
    if total_s:
        print(f"{total_p} passed, {total_f} failed, {total_s} skipped")
    else:
        print(f"{total_p} passed, {total_f} failed")
    return 1 if total_f or not args else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
