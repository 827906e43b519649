#!/usr/bin/env bash
# Builds the plug-in, the virtual scanner and the host program fghost, then
# captures a few seconds of the virtual scanner's demo scenario (a finger
# placed, held and lifted) through the plug-in, as any host does: fghost
# loads libnorvakkr7fg.so.1, takes its frame grabber with GetFrameGrabber
# and starts a plain-finger capture. Live frames and finger results land in
# out/capture as BMP files. Arguments are passed to fghost, e.g.
#   tools/demo.sh -m live -n 80
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
cmake --build --preset default --target norvakkr7fg fghost QV2ScanAPI norvakcalibratesdk norvaklf \
  >/dev/null

out=out/capture
mkdir -p "$out"
# As fast as the plug-in asks: the scenario's time is counted in frames.
unset KR7SIM_REALTIME
LD_LIBRARY_PATH="$PWD/build/default/sim/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
  build/default/tools/fghost -l build/default/src/libnorvakkr7fg.so.1 -o "$out" "$@"
