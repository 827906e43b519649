#!/usr/bin/env bash
# Release check of the Debian packages on a real system: installs every
# .deb in a folder with apt-get (which brings what they depend on), runs
# the programs from the installed system, then purges the packages and what
# apt-get brought for them, and checks that no file of theirs is left.
# Meant for a scratch machine or container; needs root (or sudo) and
# changes the system while it runs. Refuses when one of the packages is
# installed already, so as not to purge someone's installation.
#
# Usage: packaging/install_test.sh [FOLDER]   (default build/default, where
#        `cd build/default && cpack -G DEB` writes the packages)
#
# Checks, when the package is among the .deb files (else says it skips it):
#   kr7-tools + kr7-sim   kr7 --virtual list and capture; man kr7
#   libnorvakkr7fg1       the loader's cache knows the plug-in (ldconfig trigger)
#   gstreamer1.0-kr7      gst-inspect-1.0 kr7src; gst-launch-1.0 kr7src ! fakesink
#   python3-kr7           python3 -c "import kr7"
#   kr7-viewer            kr7-viewer --help
set -euo pipefail
folder=$(realpath "${1:-build/default}")
shopt -s nullglob
debs=("$folder"/*.deb)
[ ${#debs[@]} -gt 0 ] || { echo "no .deb files in $folder (cd build/default && cpack -G DEB)"; exit 1; }
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
apt=("${sudo[@]}" apt-get -y -q -o DPkg::Lock::Timeout=300)

declare -A deb_of=()
for deb in "${debs[@]}"; do
    package=$(dpkg-deb -f "$deb" Package)
    deb_of[$package]=$deb
    if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed"; then
        echo "$package is installed already; purge it first (this test purges what it installs)"
        exit 1
    fi
done
packages=("${!deb_of[@]}")
has() { [ -n "${deb_of[$1]:-}" ]; }

work=$(mktemp -d)
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
skip() { echo "skipped: $1 (no $2 package in $folder)"; }

# Every file and folder of the system that packages may own; apt's and
# dpkg's own records and the caches that triggers refresh are left out.
file_list() {
    find /usr /etc /opt /var -xdev \( -path /var/lib/dpkg -o -path /var/lib/apt \
        -o -path /var/cache -o -path /var/log -o -path /var/tmp -o -path /var/lib/ucf \) \
        -prune -o -print 2>/dev/null | sort
}
file_list >"$work/before"

# What apt-get brings besides our packages is purged again at the end.
extras=()
[ -z "${deb_of[gstreamer1.0-kr7]:-}" ] || extras+=(gstreamer1.0-tools)
added=$("${apt[@]}" -s install "${debs[@]}" "${extras[@]}" | sed -n 's/^Inst \([^ ]*\).*/\1/p')
echo "installing: $(echo $added)"
"${apt[@]}" install "${debs[@]}" "${extras[@]}" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; echo "FAIL: apt-get install"; exit 1; }

cd "$work"
# From here on: the installed system only, nothing of the build tree.
unset LD_LIBRARY_PATH KR7_SIM_DIR KR7SIM_REALTIME
export KR7SIM_SCENARIO="empty 0.3s; place; hold 1s; lift 0.5s; repeat"
run() {
    local label=$1
    shift
    if ! timeout 120 "$@" >"$work/run.log" 2>&1; then
        fail "$label"
        sed 's/^/  /' "$work/run.log"
    fi
}

if has libnorvakkr7fg1; then
    /sbin/ldconfig -p | grep -q "libnorvakkr7fg.so.1 " ||
        fail "the loader's cache does not list libnorvakkr7fg.so.1 after the installation"
else
    skip "the loader's cache" libnorvakkr7fg1
fi
if has kr7-tools && has kr7-sim; then
    [ "$(command -v kr7)" = /usr/bin/kr7 ] || fail "kr7 is not /usr/bin/kr7"
    run "kr7 --virtual list" kr7 --virtual list
    run "kr7 --virtual capture" kr7 --virtual capture --count 1 --out "$work/prints"
    [ -s "$work/prints/result-001.png" ] || fail "kr7 --virtual capture wrote no image"
    [ "$(man -w kr7 2>/dev/null)" = /usr/share/man/man1/kr7.1.gz ] || fail "man -w kr7"
    run "man kr7" env MANWIDTH=80 man --warnings kr7
    grep -q "^KR7(1)" "$work/run.log" || fail "man kr7 shows no manual page"
else
    skip "kr7 --virtual" "kr7-tools or kr7-sim"
fi
if has gstreamer1.0-kr7; then
    sim=$(dirname "$(dpkg -L kr7-sim | grep '/libQV2ScanAPI.so$')")
    run "gst-inspect-1.0 kr7src" gst-inspect-1.0 kr7src
    run "gst-launch-1.0 kr7src" env LD_LIBRARY_PATH="$sim" \
        gst-launch-1.0 -q kr7src num-buffers=10 ! fakesink
else
    skip "gst-launch-1.0 kr7src" gstreamer1.0-kr7
fi
if has python3-kr7; then
    run "python3 -c 'import kr7'" /usr/bin/python3 -c "import kr7"
else
    skip "python3 -c 'import kr7'" python3-kr7
fi
if has kr7-viewer; then
    run "kr7-viewer --help" env QT_QPA_PLATFORM=offscreen kr7-viewer --help
else
    skip "kr7-viewer --help" kr7-viewer
fi

"${apt[@]}" purge $added >"$work/purge.log" 2>&1 ||
    { cat "$work/purge.log"; fail "apt-get purge"; }
if has libnorvakkr7fg1 && /sbin/ldconfig -p | grep -q "libnorvakkr7fg.so.1 "; then
    fail "the loader's cache still lists libnorvakkr7fg.so.1 after the purge"
fi
file_list >"$work/after"
if ! diff "$work/before" "$work/after" >"$work/left"; then
    fail "the system's files differ after the purge (< gone, > left behind)"
    sed 's/^/  /' "$work/left"
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed; logs in $work"
    exit 1
fi
cd /
rm -rf "$work"
echo "installed, ran and purged ${packages[*]}: all checks passed"
