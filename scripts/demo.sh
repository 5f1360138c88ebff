#!/usr/bin/env bash
# The main job: installs what is missing, builds the SQL shell (linux preset, that target
# only) and runs it over the embedded demo plant with a first set of queries: the tags,
# the last hour of one tag, the 15-minute aggregates of that tag over the last day, and
# a week of two tags drawn as an SVG trend chart next to the build.
# Arguments are passed on to the shell, e.g. scripts/demo.sh --format json.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh"
build="$root/build/demo"
jobs=${CORVANE_JOBS:-$(nproc)}
echo "Building corvane-sql (log: build-demo.log)..."
if ! { cmake --preset linux -B "$build" && cmake --build "$build" -j "$jobs" --target corvane-sql; } \
     >"$root/build-demo.log" 2>&1; then
  tail -n 40 "$root/build-demo.log"
  echo "demo: build failed (full log: build-demo.log)" >&2
  exit 1
fi
shell="$build/tools/corvane-sql"
run() {
  local label=$1
  shift
  echo
  echo "corvane> $label;"
  "$shell" "$@"
}
format=(--format table)
for a in "$@"; do [[ $a == --format* ]] && format=(); done
run "SELECT TAGNAME, DESCRIPTION, DATATYPE FROM TAGS" "${format[@]}" "$@" \
    -e "SELECT TAGNAME, DESCRIPTION, DATATYPE FROM TAGS"
run "SELECT TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE TAGNAME = 'Ambient.Temperature' AND TIMESTAMP > DATEADD('hh', -1, NOWUTC())" \
    "${format[@]}" "$@" \
    -e "SELECT TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE TAGNAME = 'Ambient.Temperature' AND TIMESTAMP > DATEADD('hh', -1, NOWUTC())"
run "EXEC HDA_ANALOG DATEADD('dd', -1, NOWUTC()), NOWUTC(), 900000, 'Ambient.Temperature'" "${format[@]}" "$@" \
    -e "EXEC HDA_ANALOG DATEADD('dd', -1, NOWUTC()), NOWUTC(), 900000, 'Ambient.Temperature'"
chart="$build/demo-chart.svg"
echo
echo "corvane> .chart $chart"
echo "corvane> SELECT * FROM RAWDATA WHERE TAGNAME = 'Ambient.Temperature' OR TAGNAME = 'Boiler.Stage' AND TIMESTAMP > DATEADD('dd', -7, NOWUTC());"
"$shell" --chart "$chart" \
    -e "SELECT * FROM RAWDATA WHERE TAGNAME = 'Ambient.Temperature' OR TAGNAME = 'Boiler.Stage' AND TIMESTAMP > DATEADD('dd', -7, NOWUTC())"
echo "A week of two tags as a trend chart: $chart (open it in a web browser)"
echo
echo "Interactive: $shell            (.help lists the dot commands)"
echo "Your data:   $shell --data samples.csv -e \"SELECT * FROM TAGS\""
