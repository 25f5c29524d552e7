#!/usr/bin/env bash
# Runs the whole test suite, stage by stage: a normal build, the same tests
# under AddressSanitizer and UBSan, the Debian package (as root), an AArch64
# cross build under qemu-aarch64 and a short run of each fuzz target.
# Every stage prints how many tests it ran. A stage fails when a test fails,
# when it runs no test at all, or when a tool it needs is missing; the others
# still run, and the last line counts the tests of every stage. The exit
# status is non-zero when any stage failed.
# usage: scripts/test.sh            (from anywhere; builds under ./build*)
# Environment: CFGFILE_JOBS (parallel jobs, default nproc),
#              CFGFILE_FUZZ_SECONDS (seconds per fuzz target, default 15).
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh || echo "scripts/install-deps.sh failed; stages whose tools are missing will fail"
jobs=${CFGFILE_JOBS:-$(nproc)}
export CMAKE_BUILD_PARALLEL_LEVEL=$jobs

passed=0
failed=0
skipped=0
stages_failed=()
log=$(mktemp)
trap 'rm -f "$log"' EXIT

stage() { current=$1; printf '\n=== %s ===\n' "$1"; }
# stage_failed REASON: marks the current stage failed and says why.
stage_failed() {
    printf 'STAGE FAILED: %s: %s\n' "$current" "$*"
    stages_failed+=("$current: $*")
}
# stage_count PASSED FAILED [SKIPPED]: adds a stage's tests to the totals.
stage_count() {
    local skips=${3:-0}
    passed=$((passed + $1))
    failed=$((failed + $2))
    skipped=$((skipped + skips))
    printf -- '--- %s: %d tests, %d passed, %d failed, %d skipped\n' \
        "$current" $(($1 + $2 + skips)) "$1" "$2" "$skips"
}
need() {
    local tool
    for tool in "$@"; do
        command -v "$tool" >/dev/null ||
            { stage_failed "$tool not found (scripts/install-deps.sh installs it)"; return 1; }
    done
}
# configure DIR OPTIONS...: Ninja for a new directory; an existing one keeps
# its generator, and the options given are set whatever it held before.
configure() {
    local dir=$1 generator=()
    shift
    [ -f "$dir/CMakeCache.txt" ] || generator=(-G Ninja)
    cmake -S . -B "$dir" "${generator[@]}" "$@" >/dev/null ||
        { stage_failed "cmake could not configure $dir"; return 1; }
    cmake --build "$dir" -j "$jobs" || { stage_failed "the build in $dir failed"; return 1; }
}
# run_ctest DIR: runs the directory's tests and counts them from ctest's
# "N tests failed out of M" line; the tests it lists as skipped or disabled
# are among the M but did not run.
run_ctest() {
    ctest --test-dir "$1" -j "$jobs" --output-on-failure --no-tests=error 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]} summary failures total skips
    summary=$(sed -n 's/.*[^0-9]\([0-9][0-9]*\) tests\{0,1\} failed out of \([0-9][0-9]*\).*/\1 \2/p' "$log" |
              tail -n 1)
    if [ -z "$summary" ]; then
        stage_count 0 0
        stage_failed "ctest ran no tests in $1 (exit status $status)"
        return 1
    fi
    read -r failures total <<<"$summary"
    skips=$(grep -cE '^[[:space:]]*[0-9]+ - .*\((Skipped|Disabled)\)$' "$log")
    stage_count $((total - failures - skips)) "$failures" "$skips"
    if [ $((total - skips)) -eq 0 ]; then
        stage_failed "ctest ran no tests in $1"
    elif [ "$failures" -ne 0 ] || [ "$status" -ne 0 ]; then
        stage_failed "$failures of $total tests failed (ctest exit status $status)"
    fi
}

stage "build and test"
need cmake ctest ninja cc c++ pkg-config readelf &&
    configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCFGFILE_BUILD_TESTS=ON \
        -DCFGFILE_BUILD_TOOLS=ON -DCFGFILE_SANITIZE=OFF &&
    run_ctest build

stage "AddressSanitizer + UBSan"
need cmake ctest ninja cc c++ &&
    configure build-asan -DCMAKE_BUILD_TYPE=Debug -DCFGFILE_BUILD_TESTS=ON \
        -DCFGFILE_BUILD_TOOLS=ON -DCFGFILE_SANITIZE=ON &&
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        run_ctest build-asan

stage "Debian package: dpkg -i, consumers built and run against /usr, dpkg -r"
if [ "$(id -u)" -ne 0 ] || ! command -v dpkg >/dev/null; then
    echo "skipped: installing a package needs root and dpkg"
elif need cpack dpkg-query readelf pkg-config && [ -f build/CMakeCache.txt ]; then
    tests/install_test.sh --deb build . 2>&1 | tee "$log"
    status=${PIPESTATUS[0]}
    checks=$(grep -c '^ok: ' "$log")
    if [ "$status" -eq 0 ]; then
        stage_count "$checks" 0
    else
        stage_count "$checks" 1
        stage_failed "tests/install_test.sh --deb exited with status $status"
    fi
else
    [ -f build/CMakeCache.txt ] || stage_failed "no build to package: the first stage failed"
fi

stage "AArch64 cross build, tests under qemu-aarch64"
need aarch64-linux-gnu-gcc aarch64-linux-gnu-g++ qemu-aarch64 cmake ctest ninja &&
    configure build-aarch64 -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCFGFILE_BUILD_TESTS=ON \
        -DCFGFILE_BUILD_TOOLS=ON -DCFGFILE_SANITIZE=OFF &&
    run_ctest build-aarch64

stage "fuzz targets, a short bounded run each (clang, libFuzzer, ASan+UBSan)"
if need clang clang++ cmake ninja python3; then
    CFGFILE_FUZZ_BUILD_DIR=$PWD/build-fuzz fuzz/run.sh "${CFGFILE_FUZZ_SECONDS:-15}" 2>&1 | tee "$log"
    status=${PIPESTATUS[0]}
    # run.sh announces each target with "== NAME:" and marks one that failed
    # with "NAME FAILED".
    started=$(grep -c '^== fuzz_[a-z_]*:' "$log")
    broken=$(grep -c '^fuzz_[a-z_]* FAILED' "$log")
    stage_count $((started - broken)) "$broken"
    if [ "$started" -eq 0 ]; then
        stage_failed "no fuzz target ran (fuzz/run.sh exit status $status)"
    elif [ "$status" -ne 0 ]; then
        stage_failed "fuzz/run.sh exited with status $status"
    fi
fi

echo
for reason in "${stages_failed[@]}"; do
    echo "failed stage: $reason"
done
echo "tests: $passed passed, $failed failed, $skipped skipped"
[ ${#stages_failed[@]} -eq 0 ]
