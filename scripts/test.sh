#!/usr/bin/env bash
# Runs the whole test suite: a normal build, then the same tests under
# AddressSanitizer and UBSan. Further stages run when their tools exist.
# usage: scripts/test.sh            (from anywhere; builds under ./build*)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)

stage() { printf '\n=== %s ===\n' "$*"; }

# Runs ctest and adds its count of tests to the summary printed at the end.
passed=0
log=$(mktemp)
trap 'rm -f "$log"' EXIT
run_ctest() {
    ctest "$@" -j "$jobs" --output-on-failure | tee "$log"
    passed=$((passed + $(sed -n 's/.* 0 tests failed out of \([0-9]*\)$/\1/p' "$log")))
}

stage "build and test"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
run_ctest --test-dir build

stage "AddressSanitizer + UBSan"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCFGFILE_SANITIZE=ON >/dev/null
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    run_ctest --test-dir build-asan

stage "AArch64 cross build, tests under qemu-aarch64"
cmake -S . -B build-aarch64 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake >/dev/null
cmake --build build-aarch64 -j "$jobs"
run_ctest --test-dir build-aarch64

stage "fuzz targets, a short bounded run each (clang, libFuzzer, ASan+UBSan)"
CFGFILE_FUZZ_BUILD_DIR=$PWD/build-fuzz fuzz/run.sh "${CFGFILE_FUZZ_SECONDS:-15}"

# Every stage above stops the script on a failure, so reaching here means none failed.
echo
echo "tests: $passed passed, 0 failed"
