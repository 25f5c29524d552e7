#!/usr/bin/env bash
# Builds the benchmarks (Release, in build-bench/), runs them on a tmpfs and
# on a disk file system, measures heap allocations, stack use and code size,
# and writes bench/RESULTS.md. Takes a few minutes.
#
# Environment (all optional):
#   TMPFS_DIR          directory on a tmpfs   (default /dev/shm/cfgfile-bench)
#   DISK_DIR           directory on a disk    (default build-bench/bench-disk)
#   BENCH_MIN_TIME     seconds per benchmark and repetition (default 0.05)
#   BENCH_REPETITIONS  runs of each benchmark; the fastest is reported (default 12)
#   BENCH_FILTER       regular expression of the benchmarks to run (default all)
#   BENCH_KEEP         when set, the raw results are kept (their directory is printed)
set -euo pipefail

bench=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$bench")
build=$root/build-bench
tmpfs_dir=${TMPFS_DIR:-/dev/shm/cfgfile-bench}
disk_dir=${DISK_DIR:-$build/bench-disk}
work=$(mktemp -d)
trap 'rm -rf "$tmpfs_dir" "$disk_dir"; [ -n "${BENCH_KEEP:-}" ] || rm -rf "$work"' EXIT

generator=()
command -v ninja >/dev/null && [ ! -f "$build/Makefile" ] && generator=(-G Ninja)
cmake -S "$root" -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=Release \
    -DCFGFILE_BUILD_BENCH=ON -DCFGFILE_BUILD_TESTS=OFF -DCFGFILE_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" --target cfgfile cfgfile_bench alloc_count >/dev/null

# The library's trace stays silent whatever the caller's environment says.
export DBGTRACE_LEVEL=
mkdir -p "$tmpfs_dir" "$disk_dir"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
for place in tmpfs disk; do
    dir=$tmpfs_dir
    [ "$place" = disk ] && dir=$disk_dir
    echo "benchmarks on $place ($dir)..." >&2
    BENCH_DIR=$dir "$build/bench/cfgfile_bench" \
        --benchmark_min_time="${BENCH_MIN_TIME:-0.05}" \
        --benchmark_repetitions="${BENCH_REPETITIONS:-12}" \
        --benchmark_report_aggregates_only=true \
        --benchmark_enable_random_interleaving=true \
        --benchmark_filter="${BENCH_FILTER:-.}" \
        --benchmark_format=json --benchmark_out_format=json \
        --benchmark_out="$work/$place.json" >/dev/null
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)
"$build/bench/alloc_count" "$tmpfs_dir" >"$work/alloc.json"

# Stack use: the library's sources compiled once more with the flags of the
# build, plus the per-function frame sizes and the call graph.
mkdir -p "$work/stack"
python3 - "$build/compile_commands.json" "$work/stack" <<'EOF' >"$work/compile.sh"
import json, shlex, sys, os
commands, out = sys.argv[1], sys.argv[2]
for entry in json.load(open(commands)):
    source = entry["file"]
    if "/cfgfile_lib/" not in source and "/support_lib/" not in source:
        continue
    args = shlex.split(entry["command"])
    at = args.index("-o")
    obj = os.path.join(out, os.path.basename(source) + ".o")
    args[at + 1:at + 2] = [obj]
    args += ["-fstack-usage", "-fcallgraph-info=su"]
    print("cd %s && %s" % (shlex.quote(entry["directory"]), shlex.join(args)))
EOF
bash "$work/compile.sh"

python3 "$bench/report.py" \
    --tmpfs "$work/tmpfs.json" --disk "$work/disk.json" --alloc "$work/alloc.json" \
    --stack "$work/stack" --tmpfs-dir "$tmpfs_dir" --disk-dir "$disk_dir" \
    --load "$load_before / $load_after" --root "$root" --out "$bench/RESULTS.md"
echo "wrote $bench/RESULTS.md" >&2
[ -z "${BENCH_KEEP:-}" ] || echo "raw results in $work" >&2
