#!/usr/bin/env bash
# kr7src from the build tree through GStreamer's own tools, as the README
# shows them: gst-inspect-1.0 lists the element and its properties, and
# gst-launch-1.0 writes PNG files of the virtual scanner's frames.
# Usage: check_tools.sh ELEMENT_DIR WORK_DIR [SANITIZE]
# Exits 77 (skipped) in sanitizer builds, whose element needs the
# sanitizer's runtime in the program that loads it, and without the tools.
set -euo pipefail
element_dir=$1 work=$2 sanitize=${3:-}
if [ -n "$sanitize" ]; then
    echo "skipped: the $sanitize sanitizer build's libgstkr7.so needs the sanitizer's runtime" \
        "in the program that loads it; gst-inspect-1.0 and gst-launch-1.0 are not built with it"
    exit 77
fi
for tool in gst-inspect-1.0 gst-launch-1.0; do
    command -v $tool >/dev/null || {
        echo "skipped: $tool is not installed (Debian: gstreamer1.0-tools)"
        exit 77
    }
done
rm -rf "$work"
mkdir -p "$work/png"
export GST_PLUGIN_PATH=$element_dir GST_REGISTRY=$work/registry.bin
unset KR7SIM_REALTIME KR7SIM_UNITS KR7SIM_FAULTS
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

if ! inspect=$(gst-inspect-1.0 kr7src 2>&1); then
    fail "gst-inspect-1.0 kr7src"
    echo "$inspect"
fi
for property in device mode plugin virtual results-only serial frames-dropped num-buffers; do
    grep -q "^  $property  *:" <<<"$inspect" || fail "gst-inspect-1.0 does not list $property"
done
for line in "Klass                    Source/Video/Hardware" "format: GRAY8" "framerate: 0/1" \
    "(3): fastplain" "License                  Proprietary"; do
    grep -qF "$line" <<<"$inspect" || fail "gst-inspect-1.0 does not show '$line'"
done

if ! gst-inspect-1.0 pngenc >/dev/null 2>&1; then
    echo "skipped: pngenc is not installed (Debian: gstreamer1.0-plugins-good)"
    exit $((failures == 0 ? 77 : 1))
fi
if ! KR7SIM_SCENARIO="empty 0.3s; place; hold 600s" timeout 120 gst-launch-1.0 -q \
    kr7src virtual=true num-buffers=5 ! pngenc ! \
    multifilesink location="$work/png/frame-%03d.png" >"$work/launch.log" 2>&1; then
    fail "gst-launch-1.0 kr7src ! pngenc ! multifilesink"
    cat "$work/launch.log"
fi
count=$(find "$work/png" -name 'frame-*.png' | wc -l)
[ "$count" -eq 5 ] || fail "gst-launch-1.0 wrote $count PNG files, not 5"
if [ -f "$work/png/frame-004.png" ]; then
    # The PNG signature, then IHDR: 314 x 472, 8-bit grey.
    header=$(od -An -tx1 -j0 -N26 "$work/png/frame-004.png" | tr -d ' \n')
    [ "$header" = 89504e470d0a1a0a0000000d494844520000013a000001d80800 ] ||
        fail "frame-004.png is no 314x472 8-bit grey PNG: $header"
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed; files in $work"
    exit 1
fi
echo "gst-inspect-1.0 and gst-launch-1.0: all checks passed"
