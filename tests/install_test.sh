#!/bin/sh
# Installs the build into a scratch prefix and builds a C consumer against
# the installed tree, once through pkg-config and once through find_package.
# usage: install_test.sh BUILD_DIR SOURCE_DIR
set -eu
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name libcfgfile.so -printf '%h\n' | head -n 1)
for f in libcfgfile.so libcfgfile.so.1 libdbgtrace.so libdbgtrace.so.1 pkgconfig/cfgfile.pc \
         cmake/cfgfile/cfgfileConfig.cmake; do
    [ -e "$libdir/$f" ] || { echo "not installed: $f"; exit 1; }
done
for h in cfgfile_api.h xtypes.h dbgtrace.h video/video_formats.h; do
    [ -e "$prefix/include/$h" ] || { echo "not installed: include/$h"; exit 1; }
done

# pkg-config
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs cfgfile)
cc -std=c99 -Wall -Werror -o "$work/consumer_pc" "$source/tests/c_consumer.c" $flags
LD_LIBRARY_PATH=$libdir "$work/consumer_pc" "$work/pc.ini"

# find_package
mkdir -p "$work/fp"
cat > "$work/fp/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(cfgfile 1 REQUIRED)
add_executable(consumer $source/tests/c_consumer.c)
target_link_libraries(consumer PRIVATE cfgfile::cfgfile)
CMAKE
cmake -S "$work/fp" -B "$work/fp/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/fp/build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/fp/build/consumer" "$work/fp.ini"
echo "install ok"
