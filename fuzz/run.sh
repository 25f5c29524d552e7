#!/bin/sh
# fuzz/run.sh [SECONDS] - builds the fuzz target with clang and runs it for
# SECONDS (default 20), and prints its executions.
# Exits non-zero when a target finds a crash or a broken invariant; the input
# that did it is kept under <build>/fuzz/artifacts/<target>/ and can be rerun
# with "<build>/fuzz/<target> <file>".
#
# Environment: CFGFILE_FUZZ_BUILD_DIR (default build-fuzz in the source tree),
# CFGFILE_FUZZ_TARGETS (default: fuzz_operations), FUZZ_FLAGS (more libFuzzer flags).
set -eu

seconds=${1:-20}
source_dir=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${CFGFILE_FUZZ_BUILD_DIR:-$source_dir/build-fuzz}
targets=${CFGFILE_FUZZ_TARGETS:-fuzz_operations}

if [ ! -f "$build_dir/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S "$source_dir" -B "$build_dir" -G Ninja \
        -DCFGFILE_BUILD_FUZZ=ON -DCFGFILE_BUILD_TESTS=OFF -DCFGFILE_BUILD_TOOLS=OFF >/dev/null
fi
cmake --build "$build_dir" --target $targets

# Seeds come from fuzz/corpus when it is there, else they are written now.
seeds_dir=$source_dir/fuzz/corpus
if [ ! -d "$seeds_dir" ]; then
    seeds_dir=$build_dir/fuzz/seeds
    python3 "$source_dir/fuzz/seeds.py" "$seeds_dir"
fi

# The targets' settings files live in a directory removed when the run ends.
scratch_parent=/tmp
[ -w /dev/shm ] && scratch_parent=/dev/shm
CFGFILE_FUZZ_TMPDIR=$(mktemp -d "$scratch_parent/cfgfile-fuzz-run.XXXXXX")
export CFGFILE_FUZZ_TMPDIR
trap 'rm -rf "$CFGFILE_FUZZ_TMPDIR"' EXIT
unset DBGTRACE_LEVEL

failed=""
for target in $targets; do
    corpus=$build_dir/fuzz/corpus/$target
    artifacts=$build_dir/fuzz/artifacts/$target
    log=$build_dir/fuzz/$target.log
    mkdir -p "$corpus" "$artifacts"
    echo "== $target: $seconds s"
    # New inputs go to the first directory; the seeds are only read. Files
    # up to 12 KB span several blocks of the library's 4 KB reads.
    if "$build_dir/fuzz/$target" -max_total_time="$seconds" -rss_limit_mb=2048 -max_len=12288 \
        -artifact_prefix="$artifacts/" ${FUZZ_FLAGS:-} "$corpus" "$seeds_dir/$target" \
        >"$log" 2>&1; then
        grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1
        grep -E '^Done [0-9]+ runs' "$log" | tail -n 1
    else
        failed="$failed $target"
        grep -E -A 12 'invariant failed|ERROR: |runtime error' "$log" | head -n 40
        grep -E 'Test unit written to' "$log" || true
        echo "$target FAILED (log: $log)"
    fi
done

if [ -n "$failed" ]; then
    echo "failed:$failed"
    exit 1
fi
