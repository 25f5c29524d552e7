#!/usr/bin/env bash
# Builds the benchmarks (Release, in build-bench/), runs them on a tmpfs and
# on a disk file system, runs them again in turns against the library of a
# baseline commit and against a build with a large block, measures heap
# allocations, stack use and code size, and writes bench/RESULTS.md. Takes
# about half an hour on two processors.
#
# Environment (all optional):
#   TMPFS_DIR          directory on a tmpfs   (default a new /dev/shm/cfgfile-bench.XXXXXX)
#   DISK_DIR           directory on a disk    (default build-bench/bench-disk)
#   BENCH_MIN_TIME     seconds per benchmark and repetition (default 0.05)
#   BENCH_REPETITIONS  runs of each benchmark; the fastest is reported (default 12)
#   BENCH_FILTER       regular expression of the benchmarks to run (default all)
#   BENCH_BASELINE     the commit whose library is the baseline (default 4977d7a)
#   BENCH_LARGE_BLOCK  the block of the large-block build (default 16384)
#   BENCH_ROUNDS       rounds of the builds in turns (default 5)
#   BENCH_JOBS         parallel build jobs (default 2)
#   BENCH_KEEP         when set, the raw results are kept (their directory is printed)
set -euo pipefail

bench=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$bench")
build=$root/build-bench             # the library as it is, the benchmarks, the stack test
large=$build/large-block            # the same library with a large block
baseline=$build/baseline            # the baseline commit's sources and library
o2=$build/x86-64-o2                 # code size at -O2
aarch64=$build/aarch64              # code size at -O2, cross-built
# A directory of its own by default, so that two runs on one machine do not
# share their files.
tmpfs_dir=${TMPFS_DIR:-$(mktemp -d /dev/shm/cfgfile-bench.XXXXXX)}
disk_dir=${DISK_DIR:-$build/bench-disk}
baseline_commit=${BENCH_BASELINE:-4977d7a}
large_block=${BENCH_LARGE_BLOCK:-16384}
jobs=${BENCH_JOBS:-2}
work=$(mktemp -d)
trap 'rm -rf "$tmpfs_dir" "$disk_dir" "$baseline"; [ -n "${BENCH_KEEP:-}" ] || rm -rf "$work"' EXIT

# configure_and_build <directory> <source> <target...> -- <cmake option...>
configure_and_build() {
    local dir=$1 source=$2 targets=() generator=()
    shift 2
    while [ "$1" != -- ]; do targets+=("$1"); shift; done
    shift
    command -v ninja >/dev/null && [ ! -f "$dir/Makefile" ] && generator=(-G Ninja)
    echo "building $dir..." >&2
    cmake -S "$source" -B "$dir" "${generator[@]}" -DCFGFILE_BUILD_TOOLS=OFF "$@" >/dev/null
    cmake --build "$dir" -j"$jobs" --target "${targets[@]}" >/dev/null
}
configure_and_build "$build" "$root" cfgfile cfgfile_bench alloc_count footprint_test -- \
    -DCMAKE_BUILD_TYPE=Release -DCFGFILE_BUILD_BENCH=ON -DCFGFILE_BUILD_TESTS=ON \
    -DCFGFILE_IO_BLOCK=1280
configure_and_build "$large" "$root" cfgfile footprint_test -- \
    -DCMAKE_BUILD_TYPE=Release -DCFGFILE_BUILD_TESTS=ON -DCFGFILE_IO_BLOCK="$large_block"
rm -rf "$baseline"
mkdir -p "$baseline/source"
git -C "$root" archive "$baseline_commit" | tar -x -C "$baseline/source"
configure_and_build "$baseline/build" "$baseline/source" cfgfile -- \
    -DCMAKE_BUILD_TYPE=Release -DCFGFILE_BUILD_TESTS=OFF
configure_and_build "$o2" "$root" cfgfile -- \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCFGFILE_BUILD_TESTS=OFF
configure_and_build "$aarch64" "$root" cfgfile -- -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCFGFILE_BUILD_TESTS=OFF \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake"

# The directories of a build's libcfgfile.so.1 and libdbgtrace.so.1: the
# benchmark binary runs against the build they name.
libraries() {
    echo "$1/components/libraries/cfgfile_lib:$1/components/libraries/trace_lib"
}
declare -A builds=([now]=$build [baseline]=$baseline/build [large]=$large)

# run_bench <build name> <directory> <json> <repetitions> <filter>
run_bench() {
    LD_LIBRARY_PATH=$(libraries "${builds[$1]}") BENCH_DIR=$2 "$build/bench/cfgfile_bench" \
        --benchmark_min_time="${BENCH_MIN_TIME:-0.05}" \
        --benchmark_repetitions="$4" \
        --benchmark_report_aggregates_only=true \
        --benchmark_enable_random_interleaving=true \
        --benchmark_filter="$5" \
        --benchmark_format=json --benchmark_out_format=json \
        --benchmark_out="$3" >/dev/null
}

# The library's trace stays silent whatever the caller's environment says.
export DBGTRACE_LEVEL=
mkdir -p "$tmpfs_dir" "$disk_dir"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
# Every benchmark once against the library as it is; then the library's own
# benchmarks against the three builds in turns, the order reversed every
# round (now, baseline, large; large, baseline, now; ...), so that the
# builds meet the same state of the machine.
own='^(get_first|get_last|get_missing|set_replace|set_add|set_new_section|delete_key|enumerate|find_line)/(ours|paired)/'
order=(now baseline large)
for place in tmpfs disk; do
    dir=$tmpfs_dir
    [ "$place" = disk ] && dir=$disk_dir
    echo "benchmarks on $place ($dir)..." >&2
    run_bench now "$dir" "$work/$place.json" "${BENCH_REPETITIONS:-12}" "${BENCH_FILTER:-.}"
    for ((round = 0; round < ${BENCH_ROUNDS:-5}; ++round)); do
        echo "builds in turns on $place, round $((round + 1))..." >&2
        for name in "${order[@]}"; do
            run_bench "$name" "$dir" "$work/turns-$place-$name-$round.json" 3 "$own"
        done
        order=("${order[2]}" "${order[1]}" "${order[0]}")
    done
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)
"$build/bench/alloc_count" "$tmpfs_dir" >"$work/alloc.json"

# Stack use, measured: each operation on a thread whose stack was filled
# with a pattern. The large block exceeds the budgets the test checks, so its
# verdict is not taken; the figures are.
"$build/tests/footprint_test" >"$work/stack-now.txt"
"$large/tests/footprint_test" >"$work/stack-large.txt" || true

# Stack use, by function: the library's sources compiled once more with the
# flags of the build, plus the per-function frame sizes and the call graph.
mkdir -p "$work/stack"
python3 - "$build/compile_commands.json" "$work/stack" <<'EOF' >"$work/compile.sh"
import json, shlex, sys, os
commands, out = sys.argv[1], sys.argv[2]
for entry in json.load(open(commands)):
    source = entry["file"]
    args = shlex.split(entry["command"])
    at = args.index("-o")
    # The shipped library's objects only, not those of its test twin.
    if "/cfgfile_lib/" not in source and "/support_lib/" not in source \
            or "/cfgfile_faults.dir/" in args[at + 1]:
        continue
    obj = os.path.join(out, os.path.basename(source) + ".o")
    args[at + 1:at + 2] = [obj]
    args += ["-fstack-usage", "-fcallgraph-info=su"]
    print("cd %s && %s" % (shlex.quote(entry["directory"]), shlex.join(args)))
EOF
bash "$work/compile.sh"

lib=components/libraries/cfgfile_lib/libcfgfile.so
python3 "$bench/report.py" \
    --tmpfs "$work/tmpfs.json" --disk "$work/disk.json" --turns "$work" \
    --alloc "$work/alloc.json" --stack "$work/stack" \
    --stack-now "$work/stack-now.txt" --stack-large "$work/stack-large.txt" \
    --large-block "$large_block" --baseline "$baseline_commit" \
    --code "x86-64|Release, block 1280 (benchmarked)|size|$build/$lib" \
    --code "x86-64|Release, block $large_block|size|$large/$lib" \
    --code "x86-64|Release, baseline $baseline_commit|size|$baseline/build/$lib" \
    --code "x86-64|RelWithDebInfo (-O2), block 1280|size|$o2/$lib" \
    --code "AArch64|RelWithDebInfo (-O2), block 1280|aarch64-linux-gnu-size|$aarch64/$lib" \
    --tmpfs-dir "$tmpfs_dir" --disk-dir "$disk_dir" \
    --load "$load_before / $load_after" --out "$bench/RESULTS.md"
echo "wrote $bench/RESULTS.md" >&2
[ -z "${BENCH_KEEP:-}" ] || echo "raw results in $work" >&2
