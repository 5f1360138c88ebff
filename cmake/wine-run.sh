#!/usr/bin/env bash
# Runs one Windows executable under Wine, headless, in a private prefix inside the
# build tree, never waiting for input and never longer than CORVANE_WINE_TIMEOUT seconds.
set -u
exe=$1; shift
build_dir=${CORVANE_WINE_BUILD_DIR:-$(cd "$(dirname "$exe")" && while [ ! -f CMakeCache.txt ] && [ "$PWD" != / ]; do cd ..; done; pwd)}
export WINEPREFIX=${WINEPREFIX:-$build_dir/wineprefix}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-"mscoree,mshtml="}
export WINEARCH=win64
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$WINEPREFIX"
  # Two tests starting at once must not both create the prefix.
  ( flock 9; [ -f "$WINEPREFIX/system.reg" ] || timeout 300 wineboot -i </dev/null >/dev/null 2>&1; timeout 60 wineserver -w ) 9>"$WINEPREFIX.lock"
fi
wine_bin=$(command -v wine || echo /usr/lib/wine/wine64)
exec timeout --kill-after=10 "${CORVANE_WINE_TIMEOUT:-600}" "$wine_bin" "$exe" "$@" </dev/null
