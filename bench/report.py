#!/usr/bin/env python3
"""Writes bench/RESULTS.md from the output of bench/run.sh (standard library only).

Inputs: the benchmark JSON of the tmpfs and the disk run, the allocation
counts of alloc_count, and a directory of .su/.ci files (-fstack-usage,
-fcallgraph-info=su) of the library's sources.
"""
import argparse
import datetime
import glob
import json
import os
import platform
import re
import subprocess

SIZES = [10, 100, 1000, 10000]
PEERS = ["inih", "iniparser", "glib"]
WRITE_PEERS = ["iniparser", "glib"]
GETS = ["get_first", "get_last", "get_missing"]
SETS = ["set_replace", "set_add", "set_new_section"]
OPERATIONS = GETS + SETS + ["delete_key", "enumerate", "find_line"]
GET_LIMIT = 1.5      # ours / read floor
SET_LIMIT = 1.3      # ours / rewrite floor
LINEAR_LIMIT = 1.25  # growth of the cost per line (10..1000 to 1000..10000 lines) over the floor's
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
    """MET/MISSED of the target of op at one size; None when op has no target."""
    if op in GETS:
        limit, peers = GET_LIMIT, PEERS
    elif op in SETS:
        limit, peers = SET_LIMIT, WRITE_PEERS
    else:
        return None
    ours = times.get((op, "ours", lines))
    to_floor = paired_of(times, op, lines) or ratio(ours, floor_of(times, op, lines))
    if to_floor is None:
        return None
    slower = [p for p in peers if (ratio(ours, times.get((op, p, lines))) or 0) >= 1]
    misses = []
    if to_floor > limit:
        defined = ratio(defined_of(times, op, lines), floor_of(times, op, lines))
        misses.append("%.3fx floor%s > %.1fx%s" % (
            to_floor, " (paired)" if paired_of(times, op, lines) else "", limit,
            "" if defined is None else ", defined work %.2fx" % defined))
    if slower:
        misses.append("not faster than " + ", ".join(slower))
    return "MET" if not misses else "MISSED: " + "; ".join(misses)


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


def summary(runs):
    rows = ["| Target | File system | Result | Cases missed |", "|---|---|---|---|"]
    for place, times in runs:
        for name, ops in (("get ≤ %.1fx read floor, faster than inih, iniparser, glib" % GET_LIMIT,
                           GETS),
                          ("set ≤ %.1fx rewrite floor, faster than iniparser, glib" % SET_LIMIT,
                           SETS)):
            missed = []
            for op in ops:
                for lines in SIZES:
                    text = verdict(times, op, lines)
                    if text and text != "MET":
                        missed.append("%s/%d (%s)" % (op, lines, text[len("MISSED: "):]))
            rows.append("| %s | %s | %s | %s |" % (name, place, "MISSED" if missed else "MET",
                                                  "; ".join(missed) or "—"))
    for place, times in runs[:1]:
        missed = [op for op in OPERATIONS
                  if (linearity(times, op) or (0, 0, 0, 0, "MET"))[4].startswith("MISSED")]
        rows.append("| cost linear in file size | %s | %s | %s |" % (
            place, "MISSED" if missed else "MET", ", ".join(missed) or "—"))
    return "\n".join(rows)


# --------------------------------------------------------------- footprint

def section_sizes(library):
    sizes = {}
    for line in run(["size", "-A", library]).splitlines():
        fields = line.split()
        if len(fields) >= 2 and fields[0].startswith(".") and fields[1].isdigit():
            sizes[fields[0]] = int(fields[1])
    return sizes


def build_type(build_dir):
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as cache:
            for line in cache:
                if line.startswith("CMAKE_BUILD_TYPE:"):
                    return line.split("=", 1)[1].strip() or "default"
    except OSError:
        pass
    return "?"


def code_size_table(root):
    rows = ["| Build | Machine | Build type | .text | .rodata | .data + .bss |",
            "|---|---|---|---:|---:|---:|"]
    for build, machine in (("build-bench", "x86-64"), ("build", "x86-64"),
                           ("build-aarch64", "AArch64")):
        build_dir = os.path.join(root, build)
        found = sorted(p for p in glob.glob(os.path.join(
            build_dir, "components/libraries/cfgfile_lib/libcfgfile.so.1*"))
            if not os.path.islink(p))
        if not found:
            if machine == "AArch64":
                rows.append("| %s | AArch64 | — | not built | | |" % build)
            continue
        sizes = section_sizes(found[0])
        if ".text" not in sizes:
            rows.append("| %s | %s | %s | size(1) could not read it | | |" % (
                build, machine, build_type(build_dir)))
            continue
        rows.append("| %s | %s | %s | %d | %d | %d |" % (
            build, machine, build_type(build_dir), sizes[".text"], sizes.get(".rodata", 0),
            sizes.get(".data", 0) + sizes.get(".bss", 0)))
    return "\n".join(rows)


NODE = re.compile(r'node: \{ title: "([^"]*)" label: "([^"]*)"')
EDGE = re.compile(r'edge: \{ sourcename: "([^"]*)" targetname: "([^"]*)"')
FRAME = re.compile(r"(\d+) bytes \(([a-z,]+)\)")


def short_name(title, label):
    signature = label.split("\\n")[0]
    if signature.startswith(("constprop", "isra", "part")):
        # GCC labels a specialised clone by its kind: name it from its symbol.
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
    for name in ("tmpfs", "disk", "alloc", "stack", "tmpfs-dir", "disk-dir", "root", "out"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--load", default="?")
    args = parser.parse_args()

    tmpfs, context = load_times(args.tmpfs)
    disk, _ = load_times(args.disk)
    runs = [("tmpfs", tmpfs), ("disk", disk)]
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
- Times are wall-clock per call, the fastest of the repetitions (`min`), the
  repetitions of all benchmarks run in random order: on a shared machine other
  work can only make a run slower, and a burst of it then hits one repetition
  of many benchmarks rather than every repetition of one.
- **Paired ratios**: the ratio ours/floor of every operation with a target is
  also measured in turns. A benchmark `<operation>/paired/<lines>` calls ours
  and then the floor (8 lookups or 1 rewrite each, the side that goes first
  alternating from turn to turn) and reports the median of the turns' ratios;
  the `paired` column is the median of that over the repetitions. The targets
  are judged on it: both sides of a turn meet the same state of the machine,
  while the fastest runs of two separate benchmarks may come from moments a
  few percent apart on a shared machine. `ours/floor` (the fastest of each)
  stays beside it.
- **get_first / get_last / get_missing**: `CfgFile_GetIntValue` of a key in the
  first section, of the last key of the last section, and of a missing section.
  Floor: open, `read(2)` in 4 KiB blocks (the block of the lookup, which starts on a
  cache line as the library's does) up to the end of
  the key's line (to the file's size when missing, with no read that finds
  nothing: the floor knows where the file ends), close. Scan floor (`scan`): the
  same, plus what a lookup does by its definition (see Targets): `fstat` once a
  read goes past 64 KiB, and every "[" found 64 bytes at a time (SSE2 compares; the
  C library's `memchr` on other machines) with a look at the byte before it.
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
  Floor (`rewrite/floor`): open and read the whole file, write it to a temporary
  file, fsync, rename file → .bak and temporary → file, fsync the directory,
  unlink .bak. Protocol floor (`rewrite/protocol`): the same, plus the calls
  the library's rewrite makes by its definition (see Targets). Streamed floor
  (`rewrite/streamed`): the protocol floor with the file passed through a
  16 KiB buffer, a `read` and a `write` per block. Every floor reads into a
  buffer that starts on a cache line, as the library does: the kernel copies
  to it faster. iniparser: load, `iniparser_set`/`iniparser_unset`,
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
- On disk a rewrite waits for two fsyncs (the temporary file and the
  directory), which dominate for small files and vary from run to run; the
  tmpfs rows show the cost of the code and its system calls alone.
- Ratios below 1 mean ours is faster. Debian's libbenchmark prints "Library was
  built as DEBUG"; that concerns the harness only, not the code measured.

## Targets

{summary(runs)}

### What the definitions cost

The floors count system calls and copies only. The library's operations are
defined to do more, and the "defined work" of a missed case above, and the
`defined/floor` and `ours/defined` columns of the tables, measure that part:

- A rewrite carries the file's mode and owner over to the temporary file
  (`CopyFilePermissions` and `CopyFileOwnership`, each a `stat` of the file by
  its name and an `fchmod` or `fchown`) and removes a leftover backup before
  the swap (one more `unlink`): `rewrite/protocol` is the floor plus exactly
  these five calls. It is the defined work of set_replace and set_add, which
  copy the rest of the file after the change in the kernel.
- The writer drops short lines outside the section it sets and writes an empty
  line before every section line, and a key deletion looks at every line, so
  set_new_section and delete_key must look at every line of the file. A
  rewrite works in fixed-size buffers on its stack (the library allocates
  nothing itself), so the file passes through them block by block. `rewrite/streamed` is the
  protocol floor with the file passed through a 16 KiB buffer, and the defined
  work of these two.
- A lookup reads blocks, refuses a device (`fstat` once a read goes past 64 KiB;
  reading /dev/zero would never end), and must find every section
  line before the key, since any line may open the section: `scan` is the read
  floor plus that `fstat` and finding every "[" of the bytes read, the fastest
  way known here.
  Nothing else of a line is looked at, not even the section's name.

Where the defined work alone is above the limit, or slower than a peer that
renames its file over the old one and carries nothing over, no implementation
of the same definition meets the target there; `ours/defined` shows what the
library adds on top of it.

Lookups, tmpfs:

{scan_table(tmpfs)}

Rewrites, tmpfs:

{protocol_table(tmpfs)}

Rewrites, disk:

{protocol_table(disk)}

Linearity is judged on tmpfs, where no device wait hides the cost per line.
The growth of an operation is its cost per 1000 lines between 1000 and 10000
lines over its cost per 1000 lines between 10 and 1000 lines. Its cost at a
size is its paired ratio times the floor's time there: the cost of a set
grows by only about 8 µs from 10 to 1000 lines, and times measured apart
drift by about 1 µs. The floor's own
cost per line grows too (the page cache and the processor's caches hold less
of a larger file), so an operation's growth may be at most {LINEAR_LIMIT}x its
floor's. For get_first, which reads one block whatever the size, the time at
10000 lines may be at most {LINEAR_LIMIT}x the time at 10 lines.

## tmpfs

{ratio_table(tmpfs)}

### Cost per line (tmpfs)

{linearity_table(tmpfs)}

## disk

{ratio_table(disk)}

### Cost per line (disk)

Not judged: the two `fsync`s of a rewrite wait for the device, and their
times vary from run to run by more than the cost of the lines.

{linearity_table(disk, judged=False)}

## Peers, absolute times

tmpfs:

{peer_table(tmpfs)}

disk:

{peer_table(disk)}

## Footprint

### Code size of libcfgfile.so (`size -A`, bytes)

{code_size_table(args.root)}

### Stack per operation

From `-fstack-usage -fcallgraph-info=su` on the library's sources with the
flags of the Release build. "Deepest path" adds the frames of the library's own
functions down the deepest call chain; frames of the C library (`realpath`,
`snprintf`, stdio, ...) come on top.

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
