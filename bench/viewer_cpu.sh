#!/usr/bin/env bash
# CPU used by the whole kr7-viewer process at the scanner's own pace: the
# virtual scanner paced to 25 frames per second (KR7SIM_REALTIME=1), the
# window on Qt's offscreen platform, 30 s measured after 5 s of warm-up,
# from /proc/PID/stat (utime + stime). The floor, measured the same way in
# the same run: kr7 capture taking the same live frames into PGM files, the
# plug-in and the virtual scanner with a host that shows nothing.
# Usage: bench/viewer_cpu.sh [BUILD] [SECONDS]   (default build/default, 30)
set -euo pipefail
build=${1:-build/default}
seconds=${2:-30}
viewer=$build/tools/viewer/kr7-viewer
kr7=$build/tools/kr7
for program in "$viewer" "$kr7"; do
    [ -x "$program" ] || { echo "no $program: build kr7-viewer and kr7 first" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ticks=$(getconf CLK_TCK)
export KR7SIM_REALTIME=1 QT_QPA_PLATFORM=offscreen XDG_CONFIG_HOME=$work/config
# One finger, placed once and held: the virtual scanner presses each new
# placement anew in this process, which adds to the floor and the window
# alike. Another scenario can be given in KR7SIM_SCENARIO.
export KR7SIM_SCENARIO=${KR7SIM_SCENARIO:-"empty 1s; place 0.3s; hold 3600s"}

# utime + stime of PID (and of its main thread, the interface thread), in
# clock ticks.
cpu() { awk '{print $14 + $15}' "/proc/$1/stat"; }
main_cpu() { awk '{print $14 + $15}' "/proc/$1/task/$1/stat"; }
percent() { awk -v t="$1" -v hz="$ticks" -v s="$seconds" 'BEGIN { printf "%.2f", 100 * t / hz / s }'; }

# Runs the command in the background, measures it, stops it; prints the
# process's percent of a core, and into $work/main its main thread's.
measure() {
    "$@" >"$work/out.log" 2>&1 &
    local pid=$!
    sleep 5
    kill -0 "$pid" 2>/dev/null || { echo "$* ended early:" >&2; cat "$work/out.log" >&2; exit 1; }
    local before after main_before main_after
    before=$(cpu "$pid") main_before=$(main_cpu "$pid")
    sleep "$seconds"
    after=$(cpu "$pid") main_after=$(main_cpu "$pid")
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    percent $((main_after - main_before)) >"$work/main"
    percent $((after - before))
}

frames=$(((seconds + 15) * 25))
floor=$(measure "$kr7" --virtual capture --mode live --frames "$frames" --timeout 600 \
    --out "$work/frames" --name frame-%05d.pgm)
rm -rf "$work/frames"
live=$(measure "$viewer" --virtual --mode live)
live_main=$(cat "$work/main")
plain=$(measure "$viewer" --virtual --mode plain)
plain_main=$(cat "$work/main")
ratio() { awk -v a="$1" -v b="$floor" 'BEGIN { if (b > 0) printf "%.1f", a / b; else printf "-" }'; }
echo "25 frames per second, ${seconds} s, scenario \"$KR7SIM_SCENARIO\""
echo "% of one core (utime + stime of the whole process)"
printf '%-44s %6s %s\n' "kr7 capture --mode live (floor)" "$floor" ""
printf '%-44s %6s %s\n' "kr7-viewer --mode live" "$live" \
    "($(ratio "$live")x the floor; interface thread $live_main)"
printf '%-44s %6s %s\n' "kr7-viewer --mode plain" "$plain" \
    "($(ratio "$plain")x the floor; interface thread $plain_main)"
