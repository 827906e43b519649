#!/usr/bin/env bash
# The plug-in as a host developer gets it: `cmake --install` into a staging
# prefix, the example host built against that both ways (CMake package and
# pkg-config) and run on the installed virtual scanner; then the Debian
# packages: what lands in which, their relations, their control files,
# stripped binaries and compressed manual pages, the example, kr7 and (when
# GStreamer's development files were there) kr7src run from the packages
# unpacked at another root, and lintian and hardening-check when installed.
# Usage: check_packaging.sh BUILD SOURCE CXX VERSION LIBDIR BINDIR INCLUDEDIR [SANITIZE]
# Exits 77 (skipped) in sanitizer builds, whose libraries need the
# sanitizer's runtime in the host. When the kr7 Python module is built,
# KR7_PYTHON names the Python it is built for and KR7_PYTHON_MODULE its file
# relative to the prefix; it is then checked in the installation and in
# python3-kr7 too.
set -euo pipefail
build=$1 source=$2 cxx=$3 version=$4 libdir=$5 bindir=$6 includedir=$7 sanitize=${8:-}
python=${KR7_PYTHON:-} pymodule=${KR7_PYTHON_MODULE:-}
pydir=${pymodule%/*}
if [ -n "$sanitize" ]; then
    echo "skipped: the $sanitize sanitizer build's libraries need its runtime in every host"
    exit 77
fi
for tool in pkg-config dpkg-deb dpkg-shlibdeps make readelf nm groff; do
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
installed=$(cd "$stage" && find . ! -type d | sed 's|^\./||' | grep -v kr7-viewer | sort)
expected=$(sort <<LIST
$bindir/kr7
share/man/man1/kr7.1.gz
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
${pymodule:+$pymodule
$pydir/kr7.pyi}
LIST
)
expected=$(grep -v '^$' <<<"$expected")
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

# The Python module from an installation: `plugin` is the plug-in to name;
# it takes the stand-ins installed beside it (the loader's log says which
# files it opened).
run_python() {
    local label=$1 folder=$2 plugin=$3 sim=$4 log=$5 list
    if ! list=$(cd "$work" && LD_DEBUG=files PYTHONPATH=$folder "$python" -c "
import kr7, sys
print(kr7.__file__)
print(kr7.devices(virtual=True, plugin=sys.argv[1]))
with kr7.open(virtual=True, plugin=sys.argv[1]) as scanner:
    print(next(iter(scanner.capture(count=1))).image.shape)
" "$plugin" 2>"$log") || ! grep -q "serial='KR734652'" <<<"$list" ||
        ! grep -q "^$folder/kr7\." <<<"$list" || ! grep -q "(472, 314)" <<<"$list"; then
        fail "$label: the Python module"
        echo "$list" | sed 's/^/  /'
        grep -v "^ *[0-9]*:" "$log" | tail -20 | sed 's/^/  /'
    fi
    grep -q "file=$sim/libQV2ScanAPI.so " "$log" ||
        fail "$label: the Python module did not take the stand-ins in $sim"
}
if [ -n "$pymodule" ]; then
    run_python "installed" "$stage/$pydir" "$stage/$libdir/libnorvakkr7fg.so.1" \
        "$stage/$libdir/norvakkr7fg/sim" "$work/python-stage.log"
fi

# ---- Debian packages --------------------------------------------------------
debs=$work/debs
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$debs" >"$work/cpack.log" 2>&1 ||
    { fail "cpack"; cat "$work/cpack.log"; exit 1; }
arch=$(dpkg --print-architecture)
declare -A contents=(
    [libnorvakkr7fg1]="usr/$libdir/libnorvakkr7fg.so.$version
usr/$libdir/libnorvakkr7fg.so.1"
    [libnorvakkr7fg-dev]="usr/$includedir/norvakkr7fg/framegrabber.h
usr/$includedir/norvakkr7fg/image_resolution.h
usr/$libdir/libnorvakkr7fg.so
usr/$libdir/pkgconfig/norvakkr7fg.pc
usr/$libdir/cmake/norvakkr7fg/norvakkr7fgConfig.cmake
usr/$libdir/cmake/norvakkr7fg/norvakkr7fgConfigVersion.cmake"
    [kr7-tools]="usr/$bindir/kr7
usr/share/man/man1/kr7.1.gz"
    [kr7-sim]="usr/$libdir/norvakkr7fg/sim/libQV2ScanAPI.so
usr/$libdir/norvakkr7fg/sim/libnorvakcalibratesdk.so
usr/$libdir/norvakkr7fg/sim/libnorvaklf.so")
if [ -n "$pymodule" ]; then
    contents[python3-kr7]="usr/$pymodule
usr/$pydir/kr7.pyi"
fi
if [ $gstreamer = yes ]; then
    contents[gstreamer1.0-kr7]="usr/$libdir/gstreamer-1.0/libgstkr7.so"
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
        "${contents[$package]}" "$package" "$package"
        [ ! -f "$source/packaging/debian/$package.lintian-overrides" ] ||
            echo "usr/share/lintian/overrides/$package")
    expected=$(sort <<<"$expected")
    same_lines "$package holds exactly its files" "$expected" "$listed"
done
# Every package, also those not listed above, at the root the checks below
# look at.
for deb in "$debs"/*.deb; do
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
for dependency in libc6 libstdc++6; do
    grep -q "$dependency" <<<"$(field libnorvakkr7fg1 Depends)" ||
        fail "libnorvakkr7fg1 does not depend on $dependency"
done
for package in libnorvakkr7fg1 libnorvakkr7fg-dev kr7-sim; do
    [ "$(field $package Multi-Arch)" = same ] || fail "$package is not Multi-Arch: same"
done

if [ -n "$pymodule" ]; then
    python_depends=$(field python3-kr7 Depends)
    for dependency in "libnorvakkr7fg1 (= $version)" python3-numpy "python3 (>=" libc6; do
        grep -qF "$dependency" <<<"$python_depends" ||
            fail "python3-kr7 does not depend on $dependency: $python_depends"
    done
    [ "$pydir" = lib/python3/dist-packages ] ||
        fail "the Python module is not installed into lib/python3/dist-packages: $pydir"
fi

if [ $gstreamer = yes ]; then
    gst_depends=$(field gstreamer1.0-kr7 Depends)
    for dependency in "libnorvakkr7fg1 (= $version)" libgstreamer1.0-0 \
        libgstreamer-plugins-base1.0-0; do
        grep -qF "$dependency" <<<"$gst_depends" ||
            fail "gstreamer1.0-kr7 does not depend on $dependency"
    done
fi

# Control files. The loader's cache is refreshed by the ldconfig trigger,
# never by a maintainer script.
control() { dpkg-deb --ctrl-tarfile "$debs/${1}_${version}_$arch.deb" | tar -xOf - "./$2" 2>/dev/null || true; }
for deb in "$debs"/*.deb; do
    package=$(dpkg-deb -f "$deb" Package)
    for script in preinst postinst prerm postrm; do
        if grep -q ldconfig <<<"$(control "$package" $script)"; then
            fail "$package's $script calls ldconfig"
        fi
    done
done
[ "$(control libnorvakkr7fg1 triggers)" = "activate-noawait ldconfig" ] ||
    fail "libnorvakkr7fg1 does not activate the ldconfig trigger"
# The symbols file lists exactly what the plug-in exports, the shlibs file
# names the package, and neither asks for a version later than this one.
symbols=$(control libnorvakkr7fg1 symbols)
plugin=$root/usr/$libdir/libnorvakkr7fg.so.1
same_lines "libnorvakkr7fg1's symbols file lists the plug-in's exports" \
    "$(nm -D --defined-only "$plugin" | awk '{print $3}' | sort)" \
    "$(sed -n 's/^ \([^@ ]*\)@Base .*/\1/p' <<<"$symbols" | sort)"
shlibs=$(control libnorvakkr7fg1 shlibs)
[[ "$shlibs" =~ ^"libnorvakkr7fg 1 libnorvakkr7fg1 (>= "([^\)]+)")"$ ]] ||
    fail "unexpected shlibs of libnorvakkr7fg1: $shlibs"
for minimum in ${BASH_REMATCH[1]:-} $(sed -n 's/^ [^ ]* //p' <<<"$symbols"); do
    dpkg --compare-versions "$minimum" le "$version" ||
        fail "libnorvakkr7fg1's shlibs or symbols ask for $minimum, later than $version"
done

is_elf() { [ "$(od -An -tx1 -N4 "$1" | tr -d ' ')" = 7f454c46 ]; }
# Binaries stripped as Debian strips them; every program has its manual
# page, compressed with gzip -9n (no name, no time stamp) and free of
# warnings.
while IFS= read -r file; do
    is_elf "$file" || continue
    if readelf -SW "$file" | grep -qE ' \.(debug_[a-z]+|comment|symtab) '; then
        fail "${file#"$root"/} is not stripped of debug information, .comment and symbols"
    fi
done < <(find "$root" -type f)
for program in "$root/usr/$bindir"/*; do
    page=$root/usr/share/man/man1/$(basename "$program").1.gz
    [ -f "$page" ] || fail "${program#"$root"/} has no manual page"
done
for page in "$root"/usr/share/man/man*/*.gz; do
    [ "$(od -An -tx1 -j3 -N5 "$page" | tr -d ' ')" = 0000000000 ] ||
        fail "${page#"$root"/} is not compressed with gzip -n (name or time stamp)"
    if command -v mandoc >/dev/null; then
        warnings=$(zcat "$page" | mandoc -T lint -W warning 2>&1 || true)
    else
        warnings=$(zcat "$page" | groff -ww -z -man -t 2>&1 || true)
    fi
    [ -z "$warnings" ] || { fail "${page#"$root"/} has warnings"; echo "$warnings"; }
done

# Unpacked at another root: the host files and kr7 find their way from there.
build_pkgconfig "$work/host-root" "$root/usr/$libdir/pkgconfig"
run_host "unpacked packages, pkg-config" "$work/host-root/kr7host" \
    "$root/usr/$libdir/norvakkr7fg/sim" "$work/root.bmp"
# kr7 takes the stand-ins installed beside it (the loader's log says which
# files it opened); the plug-in is named, being off the loader's path here.
sim=$root/usr/$libdir/norvakkr7fg/sim
if ! list=$(LD_DEBUG=files "$root/usr/$bindir/kr7" --virtual \
    --plugin "$root/usr/$libdir/libnorvakkr7fg.so.1" list 2>"$work/kr7.log") ||
    ! grep -q "interface 0: serial" <<<"$list"; then
    fail "kr7 --virtual list from the unpacked packages"
    echo "$list" | sed 's/^/  /'
    grep -v "^ *[0-9]*:" "$work/kr7.log" | sed 's/^/  /'
fi
grep -q "file=$sim/libQV2ScanAPI.so " "$work/kr7.log" ||
    fail "kr7 from the unpacked packages did not take the stand-ins in $sim"
if [ -n "$pymodule" ]; then
    run_python "unpacked packages" "$root/usr/$pydir" "$root/usr/$libdir/libnorvakkr7fg.so.1" \
        "$sim" "$work/python-root.log"
fi

# ---- kr7-viewer, when Qt 6 was found ------------------------------------------
if [ -e "$build/tools/viewer/kr7-viewer" ]; then
    viewer_files=$(sort <<LIST
$bindir/kr7-viewer
share/applications/kr7-viewer.desktop
share/icons/hicolor/scalable/apps/kr7-viewer.svg
share/man/man1/kr7-viewer.1.gz
LIST
)
    same_lines "cmake --install installs kr7-viewer, its desktop entry, icon and manual page" \
        "$viewer_files" "$(cd "$stage" && find . ! -type d | sed 's|^\./||' | grep kr7-viewer | sort)"
    deb=$debs/kr7-viewer_${version}_$arch.deb
    same_lines "kr7-viewer holds exactly its files" \
        "$( (sed 's|^|usr/|' <<<"$viewer_files"
            printf 'usr/share/doc/kr7-viewer/%s\n' copyright changelog.gz) | sort)" \
        "$(dpkg-deb -c "$deb" | grep -v '^d' | awk '{print $6}' | sed 's|^\./||' | sort)"
    grep -q "libnorvakkr7fg1 (= $version)" <<<"$(field kr7-viewer Depends)" ||
        fail "kr7-viewer does not depend on libnorvakkr7fg1 (= $version)"
    [ "$(field kr7-viewer Suggests)" = kr7-sim ] || fail "kr7-viewer does not suggest kr7-sim"
    dpkg-deb -x "$deb" "$root"
    # --help needs no display.
    env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$root/usr/$bindir/kr7-viewer" --help \
        >"$work/viewer-help.log" 2>&1 && grep -q "^usage: kr7-viewer" "$work/viewer-help.log" ||
        fail "kr7-viewer --help from the unpacked package"
    if command -v desktop-file-validate >/dev/null; then
        desktop-file-validate "$root/usr/share/applications/kr7-viewer.desktop" ||
            fail "the desktop entry of kr7-viewer is not valid"
    fi
fi

# kr7src from the unpacked packages: GStreamer finds it in the plug-in folder
# it was installed to, and with virtual=true it takes the stand-ins installed
# beside that folder (the loader's log says which files it opened).
if [ $gstreamer = yes ] && command -v gst-launch-1.0 >/dev/null; then
    if ! GST_PLUGIN_PATH=$root/usr/$libdir/gstreamer-1.0 GST_REGISTRY=$work/registry.bin \
        LD_DEBUG=files timeout 120 gst-launch-1.0 -q kr7src virtual=true \
        plugin="$root/usr/$libdir/libnorvakkr7fg.so.1" num-buffers=3 ! fakesink \
        >"$work/gst.log" 2>&1; then
        fail "gst-launch-1.0 kr7src from the unpacked packages"
        grep -v "^ *[0-9]*:" "$work/gst.log" | sed 's/^/  /'
    fi
    grep -q "file=$sim/libQV2ScanAPI.so " "$work/gst.log" ||
        fail "kr7src from the unpacked packages did not take the stand-ins in $sim"
fi

if command -v lintian >/dev/null; then
    if ! lintian -I --pedantic --fail-on error,warning "$debs"/*.deb >"$work/lintian.log" 2>&1; then
        fail "lintian reports errors or warnings"
    fi
    grep -E '^[EW]:' "$work/lintian.log" || true
else
    echo "note: lintian is not installed; the packages were not checked with it"
fi
# Not checked: control-flow protection, which no program linked against
# Debian 12's C library can show (its start files carry no CET marking).
# "Only unprotected functions" is hardening-check's documented false alarm
# for a binary whose every call the compiler proved safe or could not size.
if command -v hardening-check >/dev/null; then
    while IFS= read -r file; do
        is_elf "$file" || continue
        hardening-check --nocfprotection "$file" >"$work/hardening.log" 2>&1 && continue
        if [ "$(grep ': no' "$work/hardening.log" | grep -vc '(ignored)')" = 1 ] &&
            grep -q "Fortify Source functions: no, only unprotected functions found" \
                "$work/hardening.log"; then
            echo "note: ${file#"$root"/}: no function the fortified C library could check"
        else
            fail "hardening-check ${file#"$root"/}"
            cat "$work/hardening.log"
        fi
    done < <(find "$root" -type f)
else
    echo "note: hardening-check (devscripts) is not installed; the binaries were not checked with it"
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed; files in $work"
    exit 1
fi
echo "installation and packages: all checks passed"
