#!/usr/bin/env bash
# Runs the whole test suite: a normal build, then the same tests under
# AddressSanitizer and UBSan. Further stages run when their tools exist.
# usage: scripts/test.sh            (from anywhere; builds under ./build*)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)

stage() { printf '\n=== %s ===\n' "$*"; }

stage "build and test"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build -j "$jobs" --output-on-failure

stage "AddressSanitizer + UBSan"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCFGFILE_SANITIZE=ON >/dev/null
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan -j "$jobs" --output-on-failure

stage "AArch64 cross build, tests under qemu-aarch64"
cmake -S . -B build-aarch64 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake >/dev/null
cmake --build build-aarch64 -j "$jobs"
ctest --test-dir build-aarch64 -j "$jobs" --output-on-failure

stage "fuzz targets, a short bounded run each (clang, libFuzzer, ASan+UBSan)"
CFGFILE_FUZZ_BUILD_DIR=$PWD/build-fuzz fuzz/run.sh "${CFGFILE_FUZZ_SECONDS:-15}"
