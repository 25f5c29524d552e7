#!/bin/sh
# Checks an installed tree the way a consumer meets it: the files are there,
# libcfgfile.so.1 has the run path $ORIGIN, and a C program (pkg-config), a
# C++ program (find_package) and the cfgfile tool run without LD_LIBRARY_PATH.
# usage: install_test.sh BUILD_DIR SOURCE_DIR
#            installs into a scratch prefix outside the system's library path
#        install_test.sh --deb BUILD_DIR SOURCE_DIR
#            builds the Debian package, installs it with dpkg (as root), checks
#            it under /usr and removes it again
# Prints one "ok:" line per check passed.
set -eu
deb=
if [ "$1" = --deb ]; then deb=1; shift; fi
build=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
unset LD_LIBRARY_PATH
work=$(mktemp -d)
installed=
cleanup() {
    if [ -n "$installed" ]; then dpkg -r cfgfile >/dev/null || echo "dpkg -r cfgfile failed"; fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM
ok() { echo "ok: $*"; }

if [ -n "$deb" ]; then
    if dpkg-query -W -f='${Status}' cfgfile 2>/dev/null | grep -q 'ok installed'; then
        echo "a cfgfile package is already installed on this machine; not replacing it"
        exit 1
    fi
    (cd "$build" && cpack -G DEB -B "$work/package") >/dev/null
    package=$(ls "$work"/package/*.deb)
    installed=1
    dpkg -i "$package" >/dev/null
    ok "dpkg -i $(basename "$package")"
    prefix=/usr
    libdir=$(dpkg -L cfgfile | sed -n 's|/libcfgfile\.so\.1$||p')
    rpath=
else
    prefix=$work/prefix
    cmake --install "$build" --prefix "$prefix" >/dev/null
    libdir=$(find "$prefix" -name libcfgfile.so.1 -printf '%h\n' | head -n 1)
    rpath=-Wl,-rpath,$libdir
    PKG_CONFIG_PATH=$libdir/pkgconfig
    export PKG_CONFIG_PATH
fi

for f in libcfgfile.so libcfgfile.so.1 libdbgtrace.so libdbgtrace.so.1 pkgconfig/cfgfile.pc \
         cmake/cfgfile/cfgfileConfig.cmake; do
    [ -e "$libdir/$f" ] || { echo "not installed: $f"; exit 1; }
done
for h in cfgfile_api.h xtypes.h dbgtrace.h video/video_formats.h; do
    [ -e "$prefix/include/$h" ] || { echo "not installed: include/$h"; exit 1; }
done
[ -e "$prefix/share/bash-completion/completions/cfgfile" ] || { echo "not installed: completion"; exit 1; }
ok "files installed under $prefix"

runpath=$(readelf -d "$libdir/libcfgfile.so.1" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]$/\1/p')
if [ "$runpath" != '$ORIGIN' ]; then
    echo "libcfgfile.so.1 has the run path '$runpath', not \$ORIGIN"
    exit 1
fi
ok "libcfgfile.so.1 RUNPATH \$ORIGIN"

# The consumers link with --as-needed, as many distributions do by default:
# they then need only libcfgfile.so.1, which must find libdbgtrace.so.1 itself.
flags=$(pkg-config --cflags --libs cfgfile)
cc -std=c99 -Wall -Werror -o "$work/consumer_pc" "$source/tests/c_consumer.c" \
    -Wl,--as-needed $flags $rpath
"$work/consumer_pc" "$work/pc.ini" >/dev/null
ok "C consumer through pkg-config"

mkdir -p "$work/fp"
cat > "$work/fp/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
find_package(cfgfile 1 REQUIRED)
add_executable(consumer $source/tests/cxx_consumer.cpp)
target_compile_options(consumer PRIVATE -Wall -Wextra -Werror)
target_link_options(consumer PRIVATE -Wl,--as-needed)
target_link_libraries(consumer PRIVATE cfgfile::cfgfile)
CMAKE
cmake -S "$work/fp" -B "$work/fp/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/fp/build" >/dev/null
"$work/fp/build/consumer" "$work/fp.ini" >/dev/null
ok "C++ consumer through find_package"

"$prefix/bin/cfgfile" get "$source/examples/device.ini" Network RtspPort --type int >/dev/null
ok "installed cfgfile tool runs"
