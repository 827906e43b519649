#!/usr/bin/env bash
# Instructions per frame of the plug-in's capture pass, counted by callgrind
# through the real loading path (bench_plugin_end_to_end --only ...).
#
#   bench/callgrind_frame.sh BENCH_BINARY MODE@WxH
#   e.g. bench/callgrind_frame.sh build/bench/bench/bench_plugin_end_to_end live@320x480
#
# Collects only inside vc::ClFrameGrabberChannel::CapturePass (device call,
# turn and invert, calibration, detection, callbacks), for two runs that
# differ by 300 frames; the difference over 300 frames leaves out the first
# frames' set-up. The device's and the calibration's inclusive counts are
# taken out the same way, leaving the plug-in's own instructions. Note: glibc
# copies large blocks with `rep movsb`, which callgrind counts per byte.
set -euo pipefail
bench=$1
config=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
for n in 100 400; do
  valgrind --tool=callgrind --callgrind-out-file="$dir/$n.out" \
    --toggle-collect='vc::ClFrameGrabberChannel::CapturePass*' \
    "$bench" --only="$config" --steady-only --frames=$n >"$dir/$n.log" 2>&1
done
count() {  # inclusive count of the first function matching $2 in file $1
  callgrind_annotate --inclusive=yes --threshold=100 "$1" 2>/dev/null | grep -E "$2" | head -1 |
    awk '{gsub(",", "", $1); print $1}'
}
total() { count "$1" 'PROGRAM TOTALS'; }
per() { echo $(( ($($1 "$dir/400.out" "${2:-}") - $($1 "$dir/100.out" "${2:-}")) / 300 )); }
all=$(per total)
device=$(per count ':ftrScanGetImageByVariableDose ')
calibration=$(per count 'calibrate.cpp:Calibrate ')
prepare=$(per count '\?\?\?:vc::ClNorvakKR7SDK::PrepareImage')
echo "$config: per frame $all instructions: device $device, calibration $calibration," \
  "plug-in $((all - device - calibration)) (of which PrepareImage $prepare)"
