#!/usr/bin/env bash
# The plug-in as a host developer gets it: `cmake --install` into a staging
# prefix, the example host built against that both ways (CMake package and
# pkg-config) and run on the installed virtual scanner; then the Debian
# packages: what lands in which, their relations, the example, kr7 and (when
# GStreamer's development files were there) kr7src run from the packages
# unpacked at another root, and lintian when installed.
# Usage: check_packaging.sh BUILD SOURCE CXX VERSION LIBDIR BINDIR INCLUDEDIR [SANITIZE]
# Exits 77 (skipped) in sanitizer builds, whose libraries need the
# sanitizer's runtime in the host.
set -euo pipefail
build=$1 source=$2 cxx=$3 version=$4 libdir=$5 bindir=$6 includedir=$7 sanitize=${8:-}
if [ -n "$sanitize" ]; then
    echo "skipped: the $sanitize sanitizer build's libraries need its runtime in every host"
    exit 77
fi
for tool in pkg-config dpkg-deb dpkg-shlibdeps make; do
    command -v $tool >/dev/null || { echo "FAIL: $tool is not installed"; exit 1; }
done

work=$build/tests/packaging_check
# kr7src and its package come with the build when GStreamer was found.
gstreamer=no
[ -f "$build/gst/libgstkr7.so" ] && gstreamer=yes
rm -rf "$work"
mkdir -p "$work"
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
# Fails with `label` unless the lines `expected` and `actual` agree; shows the
# lines missing (<) and the lines too many (>).
same_lines() {
    local label=$1 expected=$2 actual=$3
    if [ "$expected" != "$actual" ]; then
        fail "$label"
        diff <(echo "$expected") <(echo "$actual") | sed -n 's/^[<>]/  &/p' || true
    fi
}

# The example host on the virtual scanner: one plain finger into a BMP file.
unset KR7SIM_REALTIME KR7_SIM_DIR LD_LIBRARY_PATH
export KR7SIM_SCENARIO="empty 0.3s; place; hold 1s; lift 0.5s; repeat"
run_host() {
    local label=$1 host=$2 sim=$3 image=$4
    if ! LD_LIBRARY_PATH=$sim timeout 60 "$host" "$image" >"$image.log" 2>&1; then
        fail "$label: the example host failed"
        sed 's/^/  /' "$image.log"
    elif [ "$(head -c 2 "$image")" != BM ] || [ "$(stat -c %s "$image")" -le 1078 ]; then
        fail "$label: $image is no BMP file with an image"
    fi
}
build_cmake() {
    cmake -S "$source/examples/host" -B "$1" -DCMAKE_CXX_COMPILER="$cxx" \
        -DCMAKE_PREFIX_PATH="$2" >"$1.log" 2>&1 &&
        cmake --build "$1" >>"$1.log" 2>&1 || { fail "CMake build against $2"; cat "$1.log"; }
}
build_pkgconfig() {
    mkdir -p "$1"
    PKG_CONFIG_PATH=$2 make -C "$1" -f "$source/examples/host/Makefile" CXX="$cxx" \
        >"$1.log" 2>&1 || { fail "pkg-config build against $2"; cat "$1.log"; }
}

# ---- cmake --install -------------------------------------------------------
stage=$work/stage
cmake --install "$build" --prefix "$stage" >"$work/install.log"
installed=$(cd "$stage" && find . ! -type d | sed 's|^\./||' | sort)
expected=$(sort <<LIST
$bindir/kr7
$includedir/norvakkr7fg/framegrabber.h
$includedir/norvakkr7fg/image_resolution.h
$libdir/libnorvakkr7fg.so.$version
$libdir/libnorvakkr7fg.so.1
$libdir/libnorvakkr7fg.so
$libdir/pkgconfig/norvakkr7fg.pc
$libdir/cmake/norvakkr7fg/norvakkr7fgConfig.cmake
$libdir/cmake/norvakkr7fg/norvakkr7fgConfigVersion.cmake
$libdir/norvakkr7fg/sim/libQV2ScanAPI.so
$libdir/norvakkr7fg/sim/libnorvakcalibratesdk.so
$libdir/norvakkr7fg/sim/libnorvaklf.so
LIST
)
if [ $gstreamer = yes ]; then
    expected=$(printf '%s\n%s\n' "$expected" "$libdir/gstreamer-1.0/libgstkr7.so" | sort)
fi
same_lines "cmake --install installs exactly the plug-in, header, host files, kr7, stand-ins and kr7src" \
    "$expected" "$installed"
[ "$(PKG_CONFIG_PATH=$stage/$libdir/pkgconfig pkg-config --modversion norvakkr7fg)" = "$version" ] ||
    fail "pkg-config --modversion is not $version"

build_cmake "$work/host-cmake" "$stage"
build_pkgconfig "$work/host-pkgconfig" "$stage/$libdir/pkgconfig"
run_host "installed, CMake" "$work/host-cmake/kr7host" "$stage/$libdir/norvakkr7fg/sim" \
    "$work/cmake.bmp"
run_host "installed, pkg-config" "$work/host-pkgconfig/kr7host" \
    "$stage/$libdir/norvakkr7fg/sim" "$work/pkgconfig.bmp"

# ---- Debian packages --------------------------------------------------------
debs=$work/debs
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$debs" >"$work/cpack.log" 2>&1 ||
    { fail "cpack"; cat "$work/cpack.log"; exit 1; }
arch=$(dpkg --print-architecture)
# Packages are built for /usr; a plain install's libdir may differ (multiarch).
deb_libdir=$(sed -n 's|^libdir=${prefix}/||p' "$stage/$libdir/pkgconfig/norvakkr7fg.pc")
declare -A contents=(
    [libnorvakkr7fg1]="usr/$deb_libdir/libnorvakkr7fg.so.$version
usr/$deb_libdir/libnorvakkr7fg.so.1"
    [libnorvakkr7fg-dev]="usr/$includedir/norvakkr7fg/framegrabber.h
usr/$includedir/norvakkr7fg/image_resolution.h
usr/$deb_libdir/libnorvakkr7fg.so
usr/$deb_libdir/pkgconfig/norvakkr7fg.pc
usr/$deb_libdir/cmake/norvakkr7fg/norvakkr7fgConfig.cmake
usr/$deb_libdir/cmake/norvakkr7fg/norvakkr7fgConfigVersion.cmake"
    [kr7-tools]="usr/$bindir/kr7"
    [kr7-sim]="usr/$deb_libdir/norvakkr7fg/sim/libQV2ScanAPI.so
usr/$deb_libdir/norvakkr7fg/sim/libnorvakcalibratesdk.so
usr/$deb_libdir/norvakkr7fg/sim/libnorvaklf.so")
if [ $gstreamer = yes ]; then
    contents[gstreamer1.0-kr7]="usr/$deb_libdir/gstreamer-1.0/libgstkr7.so"
fi
root=$work/root
for package in "${!contents[@]}"; do
    deb=$debs/${package}_${version}_$arch.deb
    if [ ! -f "$deb" ]; then
        fail "no $deb"
        continue
    fi
    listed=$(dpkg-deb -c "$deb" | grep -v '^d' | awk '{print $6}' | sed 's|^\./||' | sort)
    expected=$(printf '%s\nusr/share/doc/%s/copyright\nusr/share/doc/%s/changelog.gz\n' \
        "${contents[$package]}" "$package" "$package" | sort)
    same_lines "$package holds exactly its files" "$expected" "$listed"
    dpkg-deb -x "$deb" "$root"
done

field() { dpkg-deb -f "$debs/${1}_${version}_$arch.deb" "$2" 2>/dev/null || true; }
grep -q "libnorvakkr7fg1 (= $version)" <<<"$(field libnorvakkr7fg-dev Depends)" ||
    fail "libnorvakkr7fg-dev does not depend on libnorvakkr7fg1 (= $version)"
tools_depends=$(field kr7-tools Depends)
for dependency in libnorvakkr7fg1 libpng16-16 libc6; do
    grep -q "$dependency" <<<"$tools_depends" || fail "kr7-tools does not depend on $dependency"
done
grep -q kr7-tools <<<"$(field kr7-sim Enhances)" || fail "kr7-sim does not enhance kr7-tools"
if [ $gstreamer = yes ]; then
    gst_depends=$(field gstreamer1.0-kr7 Depends)
    for dependency in "libnorvakkr7fg1 (= $version)" libgstreamer1.0-0 \
        libgstreamer-plugins-base1.0-0; do
        grep -qF "$dependency" <<<"$gst_depends" ||
            fail "gstreamer1.0-kr7 does not depend on $dependency"
    done
fi
shlibs=$(dpkg-deb --ctrl-tarfile "$debs/libnorvakkr7fg1_${version}_$arch.deb" 2>/dev/null |
    tar -xOf - ./shlibs 2>/dev/null || true)
[ "$shlibs" = "libnorvakkr7fg 1 libnorvakkr7fg1 (>= $version)" ] ||
    fail "unexpected shlibs of libnorvakkr7fg1: $shlibs"

# Unpacked at another root: the host files and kr7 find their way from there.
build_pkgconfig "$work/host-root" "$root/usr/$deb_libdir/pkgconfig"
run_host "unpacked packages, pkg-config" "$work/host-root/kr7host" \
    "$root/usr/$deb_libdir/norvakkr7fg/sim" "$work/root.bmp"
# kr7 takes the stand-ins installed beside it (the loader's log says which
# files it opened); the plug-in is named, being off the loader's path here.
sim=$root/usr/$deb_libdir/norvakkr7fg/sim
if ! list=$(LD_DEBUG=files "$root/usr/$bindir/kr7" --virtual \
    --plugin "$root/usr/$deb_libdir/libnorvakkr7fg.so.1" list 2>"$work/kr7.log") ||
    ! grep -q "interface 0: serial" <<<"$list"; then
    fail "kr7 --virtual list from the unpacked packages"
    echo "$list" | sed 's/^/  /'
    grep -v "^ *[0-9]*:" "$work/kr7.log" | sed 's/^/  /'
fi
grep -q "file=$sim/libQV2ScanAPI.so " "$work/kr7.log" ||
    fail "kr7 from the unpacked packages did not take the stand-ins in $sim"

# kr7src from the unpacked packages: GStreamer finds it in the plug-in folder
# it was installed to, and with virtual=true it takes the stand-ins installed
# beside that folder (the loader's log says which files it opened).
if [ $gstreamer = yes ] && command -v gst-launch-1.0 >/dev/null; then
    if ! GST_PLUGIN_PATH=$root/usr/$deb_libdir/gstreamer-1.0 GST_REGISTRY=$work/registry.bin \
        LD_DEBUG=files timeout 120 gst-launch-1.0 -q kr7src virtual=true \
        plugin="$root/usr/$deb_libdir/libnorvakkr7fg.so.1" num-buffers=3 ! fakesink \
        >"$work/gst.log" 2>&1; then
        fail "gst-launch-1.0 kr7src from the unpacked packages"
        grep -v "^ *[0-9]*:" "$work/gst.log" | sed 's/^/  /'
    fi
    grep -q "file=$sim/libQV2ScanAPI.so " "$work/gst.log" ||
        fail "kr7src from the unpacked packages did not take the stand-ins in $sim"
fi

if command -v lintian >/dev/null; then
    if ! lintian --fail-on error "$debs"/*.deb >"$work/lintian.log" 2>&1; then
        fail "lintian reports errors"
    fi
    grep -E '^[EW]:' "$work/lintian.log" || true
else
    echo "note: lintian is not installed; the packages were not checked with it"
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed; files in $work"
    exit 1
fi
echo "installation and packages: all checks passed"
