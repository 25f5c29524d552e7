#!/usr/bin/env python3
"""Writes bench/RESULTS.md from the output of bench/run.sh (standard library only).

Inputs: the benchmark JSON of the tmpfs and the disk run, the JSON of the
runs of the library as it is, of the baseline and of the large-block build in
turns, the allocation counts of alloc_count, the output of the stack test of
both blocks, a directory of .su/.ci files (-fstack-usage,
-fcallgraph-info=su) of the library's sources, and the libraries whose code
size is reported.
"""
import argparse
import datetime
import glob
import json
import os
import platform
import re
import statistics
import subprocess

SIZES = [10, 100, 1000, 10000]
PEERS = ["inih", "iniparser", "glib"]
WRITE_PEERS = ["iniparser", "glib"]
GETS = ["get_first", "get_last", "get_missing"]
SETS = ["set_replace", "set_add", "set_new_section"]
CHANGES = SETS + ["delete_key"]
OPERATIONS = GETS + CHANGES + ["enumerate", "find_line"]
# now / baseline, by lines: at 10 and 100 lines no slower, 3 % allowed for noise.
BASELINE_LIMITS = {10: 1.03, 100: 1.03, 1000: 1.25, 10000: 1.25}
LINEAR_LIMIT = 1.25  # growth of the cost per line (10..1000 to 1000..10000 lines) over the floor's
AARCH64_TEXT_LIMIT = 32768
STACK_BUDGETS = {0: 4096, 8: 8192}  # bytes, by trace level
BUILDS = ["now", "baseline", "large"]
UNIT_US = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
# Exported function that each benchmarked operation calls.
ENTRY_POINTS = {"get_first": "CfgFile_GetIntValue", "get_last": "CfgFile_GetIntValue",
                "get_missing": "CfgFile_GetIntValue", "set_replace": "CfgFile_SetIntValue",
                "set_add": "CfgFile_SetIntValue", "set_new_section": "CfgFile_SetIntValue",
                "delete_key": "CfgFile_DeleteKey", "enumerate": "CfgFile_EnumerateSections",
                "find_line": "CfgFile_FindLineStartingWith"}


def run(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


# ------------------------------------------------------------------ inputs

def load_times(path):
    """(operation, implementation, lines) -> fastest repetition, in microseconds;
    the paired ratios ours/floor, (operation, lines) -> median of the
    repetitions; and the run's context."""
    with open(path) as stream:
        data = json.load(stream)
    times, paired = {}, {}
    for entry in data["benchmarks"]:
        if "error_occurred" in entry:
            continue
        op, impl, lines = entry["run_name"].split("/")[:3]
        aggregate = entry.get("aggregate_name")
        if impl == "paired" and aggregate in (None, "median") and "paired" in entry:
            paired[(op, int(lines))] = entry["paired"]
        elif impl != "paired" and aggregate in (None, "min"):
            times[(op, impl, int(lines))] = entry["real_time"] * UNIT_US[entry["time_unit"]]
    times["paired"] = paired
    return times, data["context"]


def is_rewrite(op):
    return op in SETS or op == "delete_key"


# The least work of each operation as the library defines it (see
# "What the definitions cost"): for a lookup the read floor plus the type
# check and finding every section line; for a rewrite the floor plus the
# defined calls, streamed through the rewrite's block where every line of the
# file must be looked at.
DEFINED = {"get_first": "scan", "get_last": "scan", "get_missing": "scan",
           "set_replace": "protocol", "set_add": "protocol",
           "set_new_section": "streamed", "delete_key": "streamed"}


def floor_of(times, op, lines, impl="floor"):
    """The floor of op, or with impl one of the defined floors (DEFINED)."""
    if not is_rewrite(op):
        return times.get((op, impl, lines))
    return times.get(("rewrite", impl, lines))


def defined_of(times, op, lines):
    return floor_of(times, op, lines, DEFINED[op]) if op in DEFINED else None


def file_system(directory):
    """Type and mount point of the file system holding directory."""
    target = os.path.realpath(directory)
    best = ("?", "")
    with open("/proc/mounts") as mounts:
        for line in mounts:
            fields = line.split()
            point = fields[1]
            inside = target == point or target.startswith(point.rstrip("/") + "/")
            if inside and len(point) >= len(best[1]):
                best = (fields[2], point)
    return "%s (mounted on %s)" % best


def cpu_model():
    with open("/proc/cpuinfo") as info:
        for line in info:
            key, _, value = line.partition(":")
            if key.strip() in ("model name", "Model", "Hardware"):
                return value.strip()
    return platform.processor() or "unknown"


# ------------------------------------------------------------------ tables

def ratio(value, base):
    return value / base if value is not None and base else None


def fmt_ratio(value):
    return "—" if value is None else "%.2f" % value


def fmt_us(value):
    if value is None:
        return "—"
    return "%.0f" % value if value >= 100 else "%.1f" % value if value >= 10 else "%.2f" % value


def paired_of(times, op, lines):
    """Median ratio ours/floor of op timed in turns, or None."""
    return times.get("paired", {}).get((op, lines))


def verdict(times, op, lines):
    """MET/MISSED of a get being faster than every peer at one size; None for
    the other operations."""
    if op not in GETS:
        return None
    ours = times.get((op, "ours", lines))
    slower = [p for p in PEERS if (ratio(ours, times.get((op, p, lines))) or 0) >= 1]
    return "MET" if not slower else "MISSED: not faster than " + ", ".join(slower)


def ratio_table(times):
    rows = ["| Operation | Lines | ours/floor | paired | defined/floor | ours/defined | ours/inih "
            "| ours/iniparser | ours/glib | ours µs | floor µs | Target |",
            "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---|"]
    for op in OPERATIONS:
        for lines in SIZES:
            ours = times.get((op, "ours", lines))
            if ours is None:
                continue
            floor = floor_of(times, op, lines)
            defined = defined_of(times, op, lines)
            peers = [fmt_ratio(ratio(ours, times.get((op, p, lines)))) for p in PEERS]
            rows.append("| %s | %d | %s | %s | %s | %s | %s | %s | %s | %s |" % (
                op, lines, fmt_ratio(ratio(ours, floor)), fmt_ratio(paired_of(times, op, lines)),
                fmt_ratio(ratio(defined, floor)),
                fmt_ratio(ratio(ours, defined)), " | ".join(peers), fmt_us(ours), fmt_us(floor),
                verdict(times, op, lines) or "—"))
    return "\n".join(rows)


def protocol_table(times):
    """What the rewrite's definition costs before any line is handled."""
    rows = ["| Lines | floor µs | protocol µs | streamed µs | protocol/floor | streamed/floor "
            "| protocol/iniparser | protocol/glib |",
            "|---:|---:|---:|---:|---:|---:|---:|---:|"]
    for lines in SIZES:
        floor = times.get(("rewrite", "floor", lines))
        protocol = times.get(("rewrite", "protocol", lines))
        streamed = times.get(("rewrite", "streamed", lines))
        peers = [fmt_ratio(ratio(protocol, times.get(("set_replace", p, lines))))
                 for p in WRITE_PEERS]
        rows.append("| %d | %s | %s | %s | %s | %s | %s |" % (
            lines, fmt_us(floor), fmt_us(protocol), fmt_us(streamed),
            fmt_ratio(ratio(protocol, floor)), fmt_ratio(ratio(streamed, floor)),
            " | ".join(peers)))
    return "\n".join(rows)


def scan_table(times):
    """What a lookup's definition costs: the read floor, the type check and
    finding every section line."""
    rows = ["| Operation | Lines | floor µs | scan µs | scan/floor | ours/scan |",
            "|---|---:|---:|---:|---:|---:|"]
    for op in GETS:
        for lines in SIZES:
            floor = times.get((op, "floor", lines))
            scan = times.get((op, "scan", lines))
            ours = times.get((op, "ours", lines))
            rows.append("| %s | %d | %s | %s | %s | %s |" % (
                op, lines, fmt_us(floor), fmt_us(scan), fmt_ratio(ratio(scan, floor)),
                fmt_ratio(ratio(ours, scan))))
    return "\n".join(rows)


def peer_table(times):
    rows = ["| Operation | Lines | inih µs | iniparser µs | glib µs |", "|---|---:|---:|---:|---:|"]
    for op in OPERATIONS:
        for lines in SIZES:
            values = [times.get((op, p, lines)) for p in PEERS]
            if any(v is not None for v in values):
                rows.append("| %s | %d | %s |" % (op, lines, " | ".join(map(fmt_us, values))))
    return "\n".join(rows)


def growth(costs):
    """(cost per 1000 lines from 10 to 1000, from 1000 to 10000, their ratio)."""
    if None in costs:
        return None
    low = (costs[1] - costs[0]) / 0.99
    high = (costs[2] - costs[1]) / 9.0
    return (low, high, high / low if low > 0 else float("inf"))


def cost_of(times, op, lines):
    """Ours at one size for the linearity check: the paired ratio times the
    floor's time where there is one, else ours' own time. Times of separate
    benchmarks come from moments that may lie a few percent apart, and the
    differences between sizes magnify that; a ratio taken in turns does not
    drift, and the floor's own drift then cancels against the floor's growth."""
    paired, floor = paired_of(times, op, lines), floor_of(times, op, lines)
    return paired * floor if paired and floor else times.get((op, "ours", lines))


def linearity(times, op):
    """(ours per 1000 lines 10->1000, 1000->10000, growth, floor's growth, verdict).

    The floor's own cost per line grows with the file too (caches, page
    cache), so ours is judged by its growth over the floor's."""
    sizes = (10, 1000, 10000)
    costs = [cost_of(times, op, n) for n in sizes]
    ours = growth(costs)
    floor = growth([floor_of(times, op, n) for n in sizes])
    if ours is None:
        return None
    if op == "get_first":  # reads one block whatever the size
        constant = costs[2] / costs[0]
        return (ours[0], ours[1], constant, None,
                "MET (constant)" if constant <= LINEAR_LIMIT else "MISSED")
    floor_growth = floor[2] if floor else None
    relative = ours[2] / floor_growth if floor_growth else ours[2]
    return (ours[0], ours[1], ours[2], floor_growth,
            "MET" if relative <= LINEAR_LIMIT else "MISSED")


def linearity_table(times, judged=True):
    """The cost per line of each operation; with judged, against the target."""
    rows = ["| Operation | µs per 1000 lines, 10→1000 | µs per 1000 lines, 1000→10000 "
            "| growth | floor's growth | Target |", "|---|---:|---:|---:|---:|---|"]
    for op in OPERATIONS:
        result = linearity(times, op)
        if result:
            low, high, ours, floor, text = result
            rows.append("| %s | %.1f | %.1f | %.2f | %s | %s |" % (
                op, low, high, ours, "—" if floor is None else "%.2f" % floor,
                text if judged else "—"))
    return "\n".join(rows)


# ------------------------------------------------------------ builds in turns

def load_turns(directory, place):
    """Build -> the times of each round (load_times), in the order of the rounds."""
    turns = {}
    for build in BUILDS:
        paths = glob.glob(os.path.join(directory, "turns-%s-%s-*.json" % (place, build)))
        paths.sort(key=lambda p: int(p.rsplit("-", 1)[1].split(".")[0]))
        turns[build] = [load_times(path)[0] for path in paths]
    return turns


def median_of(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def turn_time(turns, build, op, lines):
    """The median over the rounds of the fastest repetition of one build."""
    return median_of(t.get((op, "ours", lines)) for t in turns[build])


def turn_ratio(turns, build, base, op, lines):
    """The median over the rounds of the ratio of two builds' times in a round."""
    return median_of(ratio(a.get((op, "ours", lines)), b.get((op, "ours", lines)))
                     for a, b in zip(turns[build], turns[base]))


def floor_ratio(turns, build, base, op, lines):
    """The same ratio through the physical floor: the median of a build's
    paired ratios to the floor over the base's. The floor is the same code in
    every run, so this cancels what the machine did between the runs."""
    return ratio(median_of(t["paired"].get((op, lines)) for t in turns[build]),
                 median_of(t["paired"].get((op, lines)) for t in turns[base]))


def baseline_verdict(value, lines):
    limit = BASELINE_LIMITS[lines]
    if value is None:
        return "—"
    return ("MET" if value <= limit else "MISSED") + " (≤ %.2f)" % limit


def turns_table(turns):
    rows = ["| Operation | Lines | now µs | baseline µs | large µs | now/baseline | via floor "
            "| large/baseline | large/now | now: baseline target |",
            "|---|---:|---:|---:|---:|---:|---:|---:|---:|---|"]
    for op in OPERATIONS:
        for lines in SIZES:
            now = turn_ratio(turns, "now", "baseline", op, lines)
            rows.append("| %s | %d | %s | %s | %s | %s | %s | %s | %s | %s |" % (
                op, lines, *(fmt_us(turn_time(turns, b, op, lines)) for b in BUILDS),
                fmt_ratio(now), fmt_ratio(floor_ratio(turns, "now", "baseline", op, lines)),
                fmt_ratio(turn_ratio(turns, "large", "baseline", op, lines)),
                fmt_ratio(turn_ratio(turns, "large", "now", op, lines)),
                baseline_verdict(now, lines) if op in GETS + CHANGES else "—"))
    return "\n".join(rows)


def block_table(turns_by_place):
    """The worst ratio to the baseline of the gets and of the changes, by size."""
    rows = ["| File system | Lines | gets, block 1280 | gets, large block | changes, block 1280 "
            "| changes, large block |", "|---|---:|---:|---:|---:|---:|"]
    for place, turns in turns_by_place:
        for lines in SIZES:
            cells = []
            for ops in (GETS, CHANGES):
                for build in ("now", "large"):
                    values = [turn_ratio(turns, build, "baseline", op, lines) for op in ops]
                    values = [v for v in values if v is not None]
                    cells.append("%.2f – %.2f" % (min(values), max(values)) if values else "—")
            rows.append("| %s | %d | %s |" % (place, lines, " | ".join(cells)))
    return "\n".join(rows)


# ------------------------------------------------------------------ summary

def summary(runs, turns_by_place, code, stacks, allocations):
    rows = ["| Target | File system | Result | Cases missed |", "|---|---|---|---|"]
    for place, turns in turns_by_place:
        missed = []
        for op in GETS + CHANGES:
            for lines in SIZES:
                value = turn_ratio(turns, "now", "baseline", op, lines)
                if value is not None and value > BASELINE_LIMITS[lines]:
                    missed.append("%s/%d (%.2f)" % (op, lines, value))
        rows.append("| gets and changes: now/baseline ≤ 1.03 at 10 and 100 lines (no slower, "
                    "3 %% noise), ≤ 1.25 at 1000 and 10000 | %s | %s | %s |" % (
                        place, "MISSED" if missed else "MET", "; ".join(missed) or "—"))
    for place, times in runs:
        missed = []
        for op in GETS:
            for lines in SIZES:
                text = verdict(times, op, lines)
                if text and text != "MET":
                    missed.append("%s/%d (%s)" % (op, lines, text[len("MISSED: "):]))
        rows.append("| every get faster than inih, iniparser, glib | %s | %s | %s |" % (
            place, "MISSED" if missed else "MET", "; ".join(missed) or "—"))
    for place, times in runs[:1]:
        missed = [op for op in OPERATIONS
                  if (linearity(times, op) or (0, 0, 0, 0, "MET"))[4].startswith("MISSED")]
        rows.append("| cost linear in file size | %s | %s | %s |" % (
            place, "MISSED" if missed else "MET", ", ".join(missed) or "—"))
    for machine, build, sizes in code:
        if machine == "AArch64":
            text = sizes.get(".text")
            rows.append("| AArch64 .text ≤ %d bytes (%s) | — | %s | %s |" % (
                AARCH64_TEXT_LIMIT, build,
                "—" if text is None else "MET" if text <= AARCH64_TEXT_LIMIT else "MISSED",
                "—" if text is None else "%d bytes" % text))
    for level, budget in STACK_BUDGETS.items():
        over = ["%s (%d)" % (name, depth) for (lvl, name), depth in stacks.items()
                if lvl == level and depth > budget]
        rows.append("| stack ≤ %d bytes, trace level %d (block 1280) | — | %s | %s |" % (
            budget, level, "MISSED" if over or not stacks else "MET", "; ".join(over) or "—"))
    heap = [op for op, count in allocations.items() if count["allocations"] > 0]
    rows.append("| no heap allocation | — | %s | %s |" % (
        "MISSED" if heap else "MET", ", ".join(heap) or "—"))
    return "\n".join(rows)


# --------------------------------------------------------------- footprint

def section_sizes(tool, library):
    sizes = {}
    for line in run([tool, "-A", library]).splitlines():
        fields = line.split()
        if len(fields) >= 2 and fields[0].startswith(".") and fields[1].isdigit():
            sizes[fields[0]] = int(fields[1])
    return sizes


def load_code(entries):
    """(machine, build, section sizes) of each "machine|build|size tool|library"."""
    code = []
    for entry in entries:
        machine, build, tool, library = entry.split("|")
        code.append((machine, build, section_sizes(tool, library)))
    return code


def code_size_table(code):
    rows = ["| Machine | Build | .text | .rodata | .data + .bss |", "|---|---|---:|---:|---:|"]
    for machine, build, sizes in code:
        if ".text" not in sizes:
            rows.append("| %s | %s | not built | | |" % (machine, build))
            continue
        rows.append("| %s | %s | %d | %d | %d |" % (
            machine, build, sizes[".text"], sizes.get(".rodata", 0),
            sizes.get(".data", 0) + sizes.get(".bss", 0)))
    return "\n".join(rows)


STACK_LINE = re.compile(r"level (\d+): (.+?)\s+(\d+) bytes")


def load_stack(path):
    """(trace level, operation) -> bytes, from the output of the stack test."""
    with open(path) as stream:
        return {(int(level), name): int(depth)
                for level, name, depth in STACK_LINE.findall(stream.read())}


def measured_stack_table(now, large, large_block):
    rows = ["| Operation | silent, block 1280 | level 8, block 1280 | silent, block %d "
            "| level 8, block %d |" % (large_block, large_block),
            "|---|---:|---:|---:|---:|"]
    names = [name for level, name in now if level == 0]
    for name in names:
        rows.append("| %s | %s |" % (name, " | ".join(
            str(stack.get((level, name), "—")) for stack in (now, large) for level in (0, 8))))
    rows.append("| **deepest** | %s |" % " | ".join(
        "**%d**" % max([d for (lvl, _), d in stack.items() if lvl == level] or [0])
        for stack in (now, large) for level in (0, 8)))
    return "\n".join(rows)


NODE = re.compile(r'node: \{ title: "([^"]*)" label: "([^"]*)"')
EDGE = re.compile(r'edge: \{ sourcename: "([^"]*)" targetname: "([^"]*)"')
FRAME = re.compile(r"(\d+) bytes \(([a-z,]+)\)")


def short_name(title, label):
    signature = label.split("\\n")[0]
    if signature.startswith(("constprop", "isra", "part")) or "(" not in signature:
        # GCC labels a specialised clone by its kind, and may give a variadic
        # function no signature: name it from its symbol.
        symbol = title.split(":")[-1].split(".")[0]
        signature = run(["c++filt", symbol]) or symbol
    signature = signature.replace("(anonymous namespace)::", "")
    name = (signature.split("(")[0].split() or ["?"])[-1]
    name = name.split("::")[-1]
    return "lambda" if name == "_FUN" else name


def call_graph(stack_dir):
    frames, names, calls = {}, {}, {}
    for path in glob.glob(os.path.join(stack_dir, "*.ci")):
        with open(path) as stream:
            text = stream.read()
        for title, label in NODE.findall(text):
            match = FRAME.search(label)
            if match:
                frames[title] = (int(match.group(1)), match.group(2))
                names[title] = short_name(title, label)
        for source, target in EDGE.findall(text):
            calls.setdefault(source, set()).add(target)
    return frames, names, calls


def deepest(title, frames, calls, memo, active):
    """(bytes, path) of the deepest chain of the library's own frames from title."""
    if title in memo:
        return memo[title]
    if title not in frames or title in active:
        return (0, [])
    active.add(title)
    best = (0, [])
    for callee in calls.get(title, ()):
        below = deepest(callee, frames, calls, memo, active)
        if below[0] > best[0]:
            best = below
    active.discard(title)
    memo[title] = (frames[title][0] + best[0], [title] + best[1])
    return memo[title]


def stack_table(stack_dir):
    frames, names, calls = call_graph(stack_dir)
    memo = {}
    rows = ["| Function | Operations | Own frame (bytes) | Largest frame on the path | "
            "Deepest path (bytes) | Path |", "|---|---|---:|---:|---:|---|"]
    exported = sorted(t for t in frames if t.startswith("CfgFile_"))
    for title in exported:
        total, path = deepest(title, frames, calls, memo, set())
        largest = max(path, key=lambda t: frames[t][0])
        ops = ", ".join(op for op, entry in ENTRY_POINTS.items() if entry == title) or "—"
        dynamic = any("dynamic" in frames[t][1] and "bounded" not in frames[t][1] for t in path)
        rows.append("| %s | %s | %d | %d (%s) | %d%s | %s |" % (
            title, ops, frames[title][0], frames[largest][0], names[largest], total,
            " (unbounded)" if dynamic else "",
            " → ".join("%s %d" % (names[t], frames[t][0]) for t in path)))
    return "\n".join(rows)


def alloc_table(path):
    with open(path) as stream:
        counts = json.load(stream)
    rows = ["| Operation | Allocations per call | Bytes per call |", "|---|---:|---:|"]
    for op, count in counts.items():
        rows.append("| %s | %g | %d |" % (op, count["allocations"], count["bytes"]))
    return "\n".join(rows)


# ------------------------------------------------------------------ report

def package_version(package, pkg_config_name=None):
    version = run(["pkg-config", "--modversion", pkg_config_name]) if pkg_config_name else ""
    return version or run(["dpkg-query", "-W", "-f=${Version}", package]) or "unknown"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    for name in ("tmpfs", "disk", "turns", "alloc", "stack", "stack-now", "stack-large",
                 "large-block", "baseline", "tmpfs-dir", "disk-dir", "out"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--code", action="append", default=[],
                        help="machine|build|size tool|library, once per library")
    parser.add_argument("--load", default="?")
    args = parser.parse_args()

    tmpfs, context = load_times(args.tmpfs)
    disk, _ = load_times(args.disk)
    runs = [("tmpfs", tmpfs), ("disk", disk)]
    turns = [(place, load_turns(args.turns, place)) for place in ("tmpfs", "disk")]
    rounds = min(len(t[b]) for _, t in turns for b in BUILDS)
    code = load_code(args.code)
    stack_now, stack_large = load_stack(args.stack_now), load_stack(args.stack_large)
    with open(args.alloc) as stream:
        allocations = json.load(stream)
    large = int(args.large_block)
    memory = run(["awk", "/MemTotal/ {printf \"%.0f GiB\", $2 / 1048576}", "/proc/meminfo"])
    sizes = ", ".join("%d lines = %s bytes" % (n, context.get("file_bytes_%d" % n, "?"))
                      for n in SIZES)
    compiler = run(["c++", "--version"]).splitlines()[:1] or ["unknown"]

    text = f"""# Benchmark results

Generated by `bench/run.sh` on {datetime.date.today().isoformat()}; do not edit by hand.

## Machine

| | |
|---|---|
| Architecture | {platform.machine()} |
| CPUs (nproc) | {os.cpu_count()} |
| CPU model | {cpu_model()} |
| Memory | {memory} |
| Kernel | {platform.release()} |
| Compiler | {compiler[0]} |
| tmpfs run | `{args.tmpfs_dir}`: {file_system(args.tmpfs_dir)} |
| disk run | `{args.disk_dir}`: {file_system(args.disk_dir)} |
| Load average (1, 5, 15 min) before / after the runs | {args.load} |
| Peers | inih {package_version("libinih-dev", "inih")}, iniparser {package_version("libiniparser-dev")}, GLib {package_version("libglib2.0-dev", "glib-2.0")} (GKeyFile) |
| Google Benchmark | {package_version("libbenchmark-dev", "benchmark")} |

## How it was measured

- Files: generated sections of nine `key=value` lines each (names, numbers,
  addresses, codecs, descriptions; 8 to 40 bytes a line), one empty line before
  each section: {sizes}. The same bytes for every implementation.
- **Builds.** "now" is the library as it is, Release, reading through its
  default block of 1280 bytes; "large" is the same library built with
  `-DCFGFILE_IO_BLOCK={large}`; "baseline" is the library of commit
  `{args.baseline}` (4 KiB blocks for lookups, 16 KiB for changes), Release.
  One benchmark binary runs against each: `LD_LIBRARY_PATH` names the build's
  `libcfgfile.so.1` and `libdbgtrace.so.1`.
- **Physical floor** (`floor`): the least any implementation can do. A read:
  open, one `read(2)` of the bytes the operation needs into a heap buffer as
  large as they are (starting on a cache line, as the library's block does),
  close. A change: that read of the whole file, one `write(2)` of as many
  bytes to a temporary file, `fsync`, one `rename` over the file, `fsync` of
  the directory (a change adds or drops one line, a few bytes of the
  file's size).
- Times are wall-clock per call, the fastest of the repetitions (`min`), the
  repetitions of all benchmarks run in random order: on a shared machine other
  work can only make a run slower, and a burst of it then hits one repetition
  of many benchmarks rather than every repetition of one.
- **Paired ratios**: the ratio ours/floor of every operation is also measured
  in turns. A benchmark `<operation>/paired/<lines>` calls ours and then the
  floor (8 lookups or 1 change each, the side that goes first alternating
  from turn to turn) and reports the median of the turns' ratios; the
  `paired` column is the median of that over the repetitions. Both sides of a
  turn meet the same state of the machine, while the fastest runs of two
  separate benchmarks may come from moments a few percent apart on a shared
  machine. `ours/floor` (the fastest of each) stays beside it.
- **Builds in turns**: after the full run, the library's own benchmarks
  (`ours` and `paired`, 3 repetitions each) run against now, baseline and
  large in turns, {rounds} rounds per file system, the order reversed every
  round (now, baseline, large; large, baseline, now; ...). `now/baseline` is
  the median over the rounds of the ratio of the two builds' fastest times in
  the round; `via floor` is the median of now's paired ratios to the floor
  over the median of the baseline's, which cancels what the machine did
  between two runs. The targets are judged on `now/baseline`.
- **get_first / get_last / get_missing**: `CfgFile_GetIntValue` of a key in the
  first section, of the last key of the last section, and of a missing section.
  Floor: the bytes up to the end of the key's line (the whole file when
  missing). Scan floor (`scan`): the floor plus what a lookup does by its
  definition (see below): `fstat` when the read goes past 64 KiB, and every
  "[" found 64 bytes at a time (SSE2 compares; the C library's `memchr` on
  other machines) with a look at the byte before it.
  inih: `ini_parse_stream` with a line reader that reports the end of the file
  once the handler has found the key (inih does not stop when a handler returns
  0 unless built with INI_STOP_ON_FIRST_ERROR, which Debian's is not), value with
  `atoi`. iniparser: `iniparser_load`, `iniparser_getint`, `iniparser_freedict`.
  GLib: `g_key_file_load_from_file`, `g_key_file_get_integer`, `g_key_file_free`.
- **set_replace / set_add / set_new_section / delete_key**: `CfgFile_SetIntValue`
  of a key in the middle section (replaced, alternating two values of the same
  length), of a new key in that section, of a key in a new section, and
  `CfgFile_DeleteKey` of a key in the middle section. Each call is timed by
  itself (`UseManualTime`); the file is put back between calls (except for ours
  on set_replace), untimed. Pausing the benchmark's own timer around the
  restore would add its CPU-clock system calls to the rows that restore only.
  Protocol floor (`rewrite/protocol`) and streamed floor (`rewrite/streamed`):
  see below. iniparser: load, `iniparser_set`/`iniparser_unset`,
  `iniparser_dump_ini` to a temporary file, fflush + fsync, rename over the file,
  fsync the directory (iniparser has no save of its own; this makes it as durable
  as ours). GLib: load with comments, `g_key_file_set_integer`/`remove_key`,
  `g_key_file_save_to_file` as is; GLib 2.74 writes a temporary file, fsyncs it
  (the file exists and is not empty), renames it over the file and fsyncs the
  directory (seen with strace), so on disk it is as durable as ours. inih cannot
  write.
- **enumerate**: `CfgFile_EnumerateSections` of all sections; floor: read the
  whole file; inih counts section changes in its handler; iniparser
  `iniparser_getnsec`/`getsecname`; GLib `g_key_file_get_groups`.
- **find_line**: `CfgFile_FindLineStartingWith` of a line in the last section;
  floor: read up to the end of that line. No peer has this operation.
- On disk a change waits for two fsyncs (the temporary file and the
  directory), which dominate for small files and vary from run to run; the
  tmpfs rows show the cost of the code and its system calls alone.
- Ratios below 1 mean the first named is faster. Debian's libbenchmark prints
  "Library was built as DEBUG"; that concerns the harness only, not the code
  measured.

## Targets

{summary(runs, turns, code, stack_now, allocations)}

## Side by side with the baseline

tmpfs:

{turns_table(turns[0][1])}

disk:

{turns_table(turns[1][1])}

## Block size

The block is what a call reads a file through: a lookup reads it block by
block, a change reads and writes it block by block up to the change and
hands the rest to the kernel (`copy_file_range`). A larger block saves a
read (and for a change a write) per block of a large file and costs as much
stack. Stack measured by the footprint test (`tests/footprint_test`: each operation
on a thread whose stack was filled with a pattern, the C library and the
trace formatting included), with the trace channel silent and at level 8;
speed as ratios to the baseline, the lowest and the highest of the gets
(get_first, get_last, get_missing) and of the changes (set_replace, set_add,
set_new_section, delete_key), from the runs in turns.

{block_table(turns)}

{measured_stack_table(stack_now, stack_large, large)}

## Ratios to the physical floor, tmpfs

Target column: every get faster than every peer.

{ratio_table(tmpfs)}

### Cost per line (tmpfs)

Linearity is judged on tmpfs, where no device wait hides the cost per line.
The growth of an operation is its cost per 1000 lines between 1000 and 10000
lines over its cost per 1000 lines between 10 and 1000 lines. Its cost at a
size is its paired ratio times the floor's time there: a change grows by a
few µs from 10 to 1000 lines, and times measured apart drift by about as
much. The floor's own cost per line grows too (the page cache and the
processor's caches hold less of a larger file), so an operation's growth may
be at most {LINEAR_LIMIT}x its floor's. For get_first, which reads one block
whatever the size, the time at 10000 lines may be at most {LINEAR_LIMIT}x the
time at 10 lines.

{linearity_table(tmpfs)}

## Ratios to the physical floor, disk

{ratio_table(disk)}

### Cost per line (disk)

Not judged: the two `fsync`s of a change wait for the device, and their
times vary from run to run by more than the cost of the lines.

{linearity_table(disk, judged=False)}

## What the definitions cost

The physical floor counts system calls and copies only. The library's
operations are defined to do more; the `defined/floor` and `ours/defined`
columns above, and the tables below, measure that part:

- A change excludes other changes of the file: it locks one byte of its
  temporary file for writing and one of the file for reading
  (open-file-description locks, two `fcntl`). It carries the file's mode
  and owner over to the temporary file (each a `stat` of the file by its
  name and an `fchmod` or `fchown`), removes a leftover backup (`unlink`),
  gives the old file the backup name as a hard link before the swap
  (`link`) and removes it after (`unlink`). `rewrite/protocol` is the
  physical floor plus exactly these calls; it is the defined work of
  set_replace and set_add, which copy the rest of the file after the change
  in the kernel.
- The writer drops short lines outside the section it sets and writes an empty
  line before every section line, and a key deletion looks at every line, so
  set_new_section and delete_key must look at every line of the file. A
  change works in a fixed block on its stack (the library allocates nothing),
  so the file passes through it block by block: `rewrite/streamed` is the
  protocol floor with the file read and written through 1280 bytes at a
  time, the defined work of these two.
- A lookup reads blocks, refuses a device (`fstat` once a read goes past 64 KiB;
  reading /dev/zero would never end), and must find every section
  line before the key, since any line may open the section: `scan` is the read
  floor plus that `fstat` and finding every "[" of the bytes read, the fastest
  way known here.
  Nothing else of a line is looked at, not even the section's name.

Lookups, tmpfs:

{scan_table(tmpfs)}

Changes, tmpfs:

{protocol_table(tmpfs)}

Changes, disk:

{protocol_table(disk)}

## Peers, absolute times

tmpfs:

{peer_table(tmpfs)}

disk:

{peer_table(disk)}

## Footprint

### Code size of libcfgfile.so (`size -A`, bytes)

{code_size_table(code)}

### Stack per function

From `-fstack-usage -fcallgraph-info=su` on the library's sources (block
1280) with the flags of the Release build. "Deepest path" adds the frames of
the library's own functions down the deepest call chain; frames of the C
library and of the trace library come on top (the measured figures above
include them).

{stack_table(args.stack)}

### Heap allocations per call

Counted by `bench/alloc_count` (malloc, calloc and realloc defined in the
executable, so calls made inside the shared libraries are counted too), on the
1000-line file, 100 calls after one uncounted call.

{alloc_table(args.alloc)}
"""
    with open(args.out, "w") as out:
        out.write(text)


if __name__ == "__main__":
    main()
