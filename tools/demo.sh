#!/usr/bin/env bash
# Builds kr7, the plug-in and the virtual scanner into build/default, then
# takes three plain-finger results from the virtual scanner's demo scenario
# (a finger placed, held and lifted, again and again) through the plug-in,
# and a sheet of them, into out/capture. Arguments are passed on to
# kr7 capture, e.g.
#   tools/demo.sh --mode rolled --count 2
#   KR7SIM_REALTIME=1 tools/demo.sh        # at the scanner's own pace
set -euo pipefail
cd "$(dirname "$0")/.."

tools/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target kr7 >/dev/null

out=out/capture
build/default/tools/kr7 --virtual capture --count 3 --out "$out" --sheet "$out/sheet.png" "$@"
