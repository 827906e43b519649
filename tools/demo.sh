#!/usr/bin/env bash
# Builds the capture program and the virtual scanner, then captures a few
# seconds of the virtual scanner's demo scenario (a finger placed, held and
# lifted) in plain-finger mode. Live frames and finger results land in
# out/capture as BMP files. Arguments are passed to kr7capture, e.g.
#   tools/demo.sh -m rolled -n 80      (with KR7SIM_SCENARIO="roll from=left")
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
cmake --build --preset default --target kr7capture QV2ScanAPI norvakcalibratesdk norvaklf >/dev/null

out=out/capture
mkdir -p "$out"
LD_LIBRARY_PATH="$PWD/build/default/sim/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
  build/default/tools/kr7capture -o "$out" "$@"
