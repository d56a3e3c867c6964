#!/usr/bin/env python3
"""report.py --results FOLDER [--write DOCS] [--load L] [--notes TEXT] [--failed GROUPS] [--slow TEXT]

Prints what the benchmarks in FOLDER/*.json measured, and with --write fills the template
performance.md.in: DOCS/performance.md and DOCS/performance/*.svg. Exit status 1 when a benchmark
failed, 4 when one gave no verdict because of the machine's load, else 0.
"""
import argparse
import glob
import json
import math
import os
import re
import statistics
import sys
from xml.sax.saxutils import escape

HERE = os.path.dirname(os.path.abspath(__file__))
LOAD_LIMIT = 0.5
COST, SPEED, NONE = 0, 1, 2

# Every pair, in the order of the document: what it does, against what.
TITLES = {
    "stream/ram_1": "1 chunk, file in memory",
    "stream/ram_4": "4 chunks, file in memory",
    "stream/disk_1": "1 chunk, file on disk",
    "stream/disk_4": "4 chunks, file on disk",
    "stream/ram_1_buffered": "1 chunk, file in memory, against two buffers and a thread",
    "stream/ram_4_buffered": "4 chunks, file in memory, against two buffers and a thread each",
    "stream/disk_1_buffered": "1 chunk, file on disk, against two buffers and a thread",
    "stream/slow_1": "1 chunk, device of 10 MB/s",
    "stream/slow_4": "4 chunks, device of 10 MB/s",
    "stream/call": "median writing call, against `memcpy`",
    "stream/stall_2MBps": "longest call at 2 MB/s, device stops for 250 ms",
    "stream/stall_8MBps": "longest call at 8 MB/s, device stops for 250 ms",
    "open/ram_journal": "journal chunk, no buffers",
    "open/ram_picture": "picture chunk for reading",
    "open/ram_stream": "stream chunk for writing",
    "open/disk_cold": "stream chunk, nothing of the card in memory",
    "insert/disk_1": "insert, card on disk, one processor",
    "update/disk_1": "update, card on disk, one processor",
    "delete/disk_1": "delete, card on disk, one processor",
    "insert/disk": "insert, card on disk",
    "update/disk": "update, card on disk",
    "delete/disk": "delete, card on disk",
    "insert/slow": "insert, device of 10 MB/s",
    "insert/ram_1": "insert, card in memory, one processor",
    "update/ram_1": "update, card in memory, one processor",
    "delete/ram_1": "delete, card in memory, one processor",
    "insert/ram": "insert, card in memory",
    "update/ram": "update, card in memory",
    "delete/ram": "delete, card in memory",
    "replay/full": "393,216 events and 196,608 recordings",
    "repair/disk_cold": "nothing of the card in memory",
    "repair/ram": "card in memory",
    "format/ram": "image in memory",
    "format/disk": "image on disk",
    "export/mp4": "to .mp4, against `ffmpeg -c copy`",
    "crc/28_bytes": "28 bytes, an event record",
    "crc/4_KiB": "4 KiB",
    "server/rate": "requests per second",
    "server/p99": "99th percentile of a request's time",
}
LISTS = {
    "list/events": "`selectEventList`, 1,000 events from a key on",
    "list/viewer_keys": "`selectViewerList`, 1,000 events behind a key",
    "list/rip_first": "`selectRipList`, 100 recordings of the oldest period",
    "list/viewer_period": "`selectViewerList`, 1,000 events of a period",
    "list/rip_middle": "`selectRipList`, 100 recordings of a middle period",
    "list/count": "`selectCount` of a middle period",
}
SIZES = (4000, 40000, 400000)
for _name, _title in LISTS.items():
    for _rows in SIZES:
        TITLES[f"{_name}/{_rows}"] = f"{_title}; {_rows:,} rows"
STEPS = ["management files", "database", "overtaken rows", "video rows", "remaining rows", "events",
         "stream headers", "management data", "flush"]
COLOURS = ["#4e79a7", "#f28e2b", "#e15759", "#76b7b2", "#59a14f", "#edc948", "#b07aa1", "#9c755f",
           "#bab0ac"]


class Entry:
    """All repetitions of one benchmark."""

    def __init__(self, name):
        self.name, self.error = name, None
        self.ours, self.bare, self.ratio, self.load = [], [], [], 0.0
        self.goal, self.limit, self.figures = NONE, 0.0, {}

    def add(self, record):
        if record.get("error_occurred"):
            self.error = record.get("error_message", "failed")
            return
        if "ratio" in record:
            self.goal, self.limit = int(record["goal"]), record["limit"]
            self.ours.append(record["ours"])
            self.bare.append(record["bare"])
            self.ratio.append(record["ratio"])
        self.load = max(self.load, record.get("load", 0.0))
        for key, value in record.items():
            if key.startswith("fig_"):
                self.figures.setdefault(key[4:], []).append(value)

    def figure(self, name):
        values = self.figures.get(name)
        return statistics.median(values) if values else math.nan

    def median(self):
        return statistics.median(self.ratio)

    def meets(self):
        return self.median() <= self.limit if self.goal == COST else self.median() >= self.limit

    def goal_text(self):
        if self.goal == NONE:
            return "–"
        return f"{'≤' if self.goal == COST else '≥'} {self.limit:g}"

    def verdict(self, anyway):
        if self.load > LOAD_LIMIT and not anyway:
            return f"no verdict: load {self.load:.2f}"
        if self.goal == NONE:
            return ""
        text = "met" if self.meets() else "**missed**"
        return text + (f" (load {self.load:.2f})" if self.load > LOAD_LIMIT else "")


def read_results(folder):
    entries = {}
    for path in sorted(glob.glob(os.path.join(folder, "*.json"))):
        try:
            with open(path, encoding="utf-8") as file:
                records = json.load(file)["benchmarks"]
        except (ValueError, KeyError):
            continue  # its group failed and is named as such
        for record in records:
            if record["run_type"] == "iteration":
                name = re.sub(r"/iterations:.*$", "", record["name"])
                entries.setdefault(name, Entry(name)).add(record)
    return entries


def seconds(value):
    for unit, scale in (("s", 1), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= scale:
            return f"{value / scale:.3g} {unit}"
    return f"{value * 1e9:.3g} ns"


def table(entries, names, anyway):
    lines = ["| work | goal | median ratio (least–greatest) | ours | bare | verdict |",
             "|---|---|---|---|---|---|"]
    for name in names:
        entry = entries.get(name)
        title = TITLES.get(name, name)
        if entry is None or entry.error or not entry.ratio:
            why = entry.error if entry and entry.error else "not measured"
            lines.append(f"| {title} | | | | | {why} |")
            continue
        lines.append(
            f"| {title} | {entry.goal_text()} | {entry.median():.3g} ({min(entry.ratio):.3g}–"
            f"{max(entry.ratio):.3g}, {len(entry.ratio)} turns) | "
            f"{seconds(statistics.median(entry.ours))} | {seconds(statistics.median(entry.bare))} | "
            f"{entry.verdict(anyway)} |")
    return "\n".join(lines)


def growth_table(entries):
    lines = ["| list | 4,000 rows | 40,000 rows | 400,000 rows | growth | below 1.3 |",
             "|---|---|---|---|---|---|"]
    for name, title in LISTS.items():
        sizes = [entries.get(f"{name}/{rows}") for rows in SIZES]
        if any(size is None or size.error or not size.ours for size in sizes):
            lines.append(f"| {title} | | | | not measured | |")
            continue
        times = [statistics.median(size.ours) for size in sizes]
        growth = times[-1] / times[0]
        lines.append(f"| {title} | {' | '.join(seconds(time) for time in times)} | {growth:.2f} | "
                     f"{'yes' if growth < 1.3 else 'no, see below'} |")
    return "\n".join(lines)


# Requests to the server of each change; a test counts them.
REQUESTS = {"insert": 5, "update": 4, "delete": 4}


def message_table(entries):
    """What the messages of a change come to, beside what it takes longer than the bare loop."""
    lines = ["| change | bare | messages | bare and messages | ours |", "|---|---|---|---|---|"]
    for name in ("insert/disk_1", "update/disk_1", "delete/disk_1", "insert/disk", "update/disk",
                 "delete/disk", "insert/ram_1", "update/ram_1", "delete/ram_1", "insert/ram",
                 "update/ram", "delete/ram"):
        entry = entries.get(name)
        one = entries.get("message/together" if name.endswith("_1") else "message/apart")
        if not entry or not one or not entry.ratio or entry.error or one.error:
            lines.append(f"| {TITLES[name]} | | | | not measured |")
            continue
        count = entry.figure("count")
        ours, bare = (1e6 * statistics.median(side) / count for side in (entry.ours, entry.bare))
        number = REQUESTS[name.split("/")[0]]
        messages = number * one.figure("us")
        lines.append(f"| {TITLES[name]} | {bare:.0f} µs | {number} × {one.figure('us'):.1f} µs | "
                     f"{bare + messages:.0f} µs | {ours:.0f} µs |")
    return "\n".join(lines)


def startup_entries(entries):
    return [entry for name, entry in entries.items()
            if name.startswith("startup/") and not entry.error and entry.figures]


def startup_table(entries):
    lines = ["| card | rows | all | database | stream headers | management data | the rest | "
             "a row |", "|---|---|---|---|---|---|---|---|"]
    for entry in sorted(startup_entries(entries),
                        key=lambda e: (e.figure("card_GiB"), e.figure("rows"))):
        parts = {step: entry.figure("ms_" + step.replace(" ", "_")) for step in STEPS}
        named = ("database", "stream headers", "management data")
        rest = sum(value for step, value in parts.items() if step not in named)
        whole = entry.figure("ms_all")
        spread = entry.figures["ms_all"]
        lines.append(
            f"| {entry.figure('card_GiB'):.0f} GiB | {entry.figure('rows'):,.0f} | {whole:,.0f} ms "
            f"({min(spread):,.0f}–{max(spread):,.0f}) | " +
            " | ".join(f"{parts[step]:,.1f} ms" for step in named) +
            f" | {rest:,.1f} ms | {1e3 * whole / entry.figure('rows'):.2f} µs |")
    return "\n".join(lines)


def cost_table(entries):
    rows = [("stream_us_per_MiB", "stream data alone, processor time per MiB", "µs"),
            ("bare_us_per_MiB", "bare writes of 1 MiB with a flush each, processor time per MiB", "µs"),
            ("recording_us_per_MiB",
             "whole recording (20 KiB pictures, time stamps, entries, rows, journal, server), "
             "processor time per MiB", "µs"),
            ("object_bytes", "a chunk object itself", "bytes"),
            ("stream_chunk_heap_KiB", "open stream chunk, from the heap: two buffers of 1 MiB", "KiB"),
            ("stream_chunk_resident_KiB",
             "open stream chunk in use, memory occupied (its write thread's stack included)", "KiB"),
            ("picture_chunk_heap_KiB", "open picture chunk, from the heap: two buffers of 32 KiB",
             "KiB")]
    columns = [("cost/here", "x86-64"), ("cost/armhf", "armhf, emulated")]
    lines = ["| what | " + " | ".join(title for _, title in columns) + " |",
             "|---|" + "---|" * len(columns)]
    for key, title, unit in rows:
        cells = []
        for name, _ in columns:
            entry = entries.get(name)
            if entry is None or entry.error or key not in entry.figures:
                cells.append(entry.error if entry and entry.error else "not measured")
            else:
                cells.append(f"{entry.figure(key):,.0f} {unit}")
        lines.append(f"| {title} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


# ---- plots ----

def svg(width, height, body):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
            f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">\n'
            f'<rect width="{width}" height="{height}" fill="white"/>\n' + "\n".join(body) +
            "\n</svg>\n")


def text(x, y, value, anchor="start", **more):
    extra = "".join(f' {key}="{value2}"' for key, value2 in more.items())
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{extra}>{escape(str(value))}</text>'


def line(x1, y1, x2, y2, colour="#999", width=1):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"/>')


def ratios_plot(entries):
    """Every pair: its spread and median, and the goal."""
    shown = [entries[name] for name in TITLES
             if name in entries and entries[name].ratio and not entries[name].error]
    left, right, top, step = 390, 30, 50, 20
    width, height = 900, top + step * len(shown) + 30
    low, high = 0.25, 16.0

    def x(value):
        value = min(max(value, low), high)
        return left + (width - left - right) * math.log(value / low) / math.log(high / low)

    body = [text(left, 20, "ratio to the bare loop; triangle: goal, which the dot must have on its "
                           "open side", "start")]
    for tick in (0.25, 0.5, 1, 2, 4, 8, 16):
        body.append(line(x(tick), top - 8, x(tick), height - 20, "#ddd" if tick != 1 else "#888"))
        body.append(text(x(tick), top - 14, f"{tick:g}", "middle"))
    for index, entry in enumerate(shown):
        y = top + step * index + step / 2
        colour = "#4e79a7" if entry.goal == NONE or entry.meets() else "#e15759"
        body.append(text(left - 8, y + 4, TITLES[entry.name].replace("`", ""), "end",
                         **{"font-size": 11}))
        body.append(line(x(min(entry.ratio)), y, x(max(entry.ratio)), y, colour, 2))
        body.append(f'<circle cx="{x(entry.median()):.1f}" cy="{y:.1f}" r="4" fill="{colour}"/>')
        if entry.goal != NONE:
            tip, side = x(entry.limit), -7 if entry.goal == COST else 7
            body.append(f'<path d="M {tip:.1f} {y - 5:.1f} L {tip + side:.1f} {y:.1f} L {tip:.1f} '
                        f'{y + 5:.1f}" fill="none" stroke="#333"/>')
    return svg(width, height, body)


def startup_plot(entries):
    """Parts of a recovery over the rows of the journals."""
    shown = sorted((e for e in startup_entries(entries) if e.figure("card_GiB") == 64),
                   key=lambda e: e.figure("rows"))
    if not shown:
        return svg(300, 40, [text(10, 25, "not measured")])
    width, height, left, bottom, top = 760, 420, 70, 50, 20
    most_rows = shown[-1].figure("rows")
    most_ms = max(e.figure("ms_all") for e in shown) * 1.05

    def y(ms):
        return height - bottom - (height - bottom - top) * ms / most_ms

    def x(rows):
        return left + 30 + (width - left - 260) * rows / most_rows

    body = [line(left, y(0), width - 190, y(0), "#333"), line(left, y(0), left, top, "#333"),
            text((left + width - 190) / 2, height - 12, "rows of the database, 64 GiB card", "middle"),
            text(left, 14, "milliseconds", "middle")]
    # A round step that gives four to ten ticks.
    grid = next(step for step in (s * 10 ** p for p in range(-1, 7) for s in (1, 2, 5))
                if most_ms / step <= 10)
    for tick in range(0, int(most_ms / grid) + 1):
        body.append(line(left - 4, y(tick * grid), left, y(tick * grid), "#333"))
        body.append(text(left - 8, y(tick * grid) + 4, f"{tick * grid:,.0f}", "end"))
    whole = shown[-1].figure("ms_all")
    body.append(f'<path d="M {x(0):.1f} {y(0):.1f} L {x(most_rows):.1f} {y(whole):.1f}" fill="none" '
                'stroke="#333" stroke-dasharray="4 4"/>')
    for entry in shown:
        base, rows = 0.0, entry.figure("rows")
        for step, colour in zip(STEPS, COLOURS):
            part = entry.figure("ms_" + step.replace(" ", "_"))
            body.append(f'<rect x="{x(rows) - 14:.1f}" y="{y(base + part):.1f}" width="28" '
                        f'height="{y(base) - y(base + part):.2f}" fill="{colour}"/>')
            base += part
        body.append(text(x(rows), height - bottom + 16, f"{rows:,.0f}", "middle"))
    for index, (step, colour) in enumerate(zip(STEPS, COLOURS)):
        at = top + 20 * index
        body.append(f'<rect x="{width - 175}" y="{at}" width="12" height="12" fill="{colour}"/>')
        body.append(text(width - 157, at + 11, step))
    body.append(text(width - 175, top + 20 * len(STEPS) + 11, "dashed: linear in the rows"))
    return svg(width, height, body)


def lists_plot(entries):
    """Time of each list over the rows of its table."""
    width, height, left, bottom, top = 760, 380, 70, 50, 20
    series = {}
    for name in LISTS:
        times = [entries.get(f"{name}/{rows}") for rows in SIZES]
        if all(entry and entry.ours and not entry.error for entry in times):
            series[name] = [statistics.median(entry.ours) for entry in times]
    if not series:
        return svg(300, 40, [text(10, 25, "not measured")])
    low = 10 ** math.floor(math.log10(min(min(times) for times in series.values())))
    high = 10 ** math.ceil(math.log10(max(max(times) for times in series.values())))

    def y(value):
        return height - bottom - (height - bottom - top) * math.log(value / low) / math.log(high / low)

    def x(rows):
        return left + 20 + (width - left - 400) * math.log(rows / 4000) / math.log(100)

    body = [text((left + width - 380) / 2, height - 12, "rows of the table", "middle")]
    decade = low
    while decade <= high * 1.001:
        body.append(line(left, y(decade), width - 360, y(decade), "#ddd"))
        body.append(text(left - 8, y(decade) + 4, seconds(decade), "end"))
        decade *= 10
    for rows in SIZES:
        body.append(text(x(rows), height - bottom + 16, f"{rows:,}", "middle"))
    for index, (name, times) in enumerate(series.items()):
        points = " ".join(f"{x(rows):.1f},{y(time):.1f}" for rows, time in zip(SIZES, times))
        body.append(f'<polyline points="{points}" fill="none" stroke="{COLOURS[index]}" '
                    'stroke-width="2"/>')
        at = top + 20 * index
        body.append(f'<rect x="{width - 345}" y="{at}" width="12" height="12" '
                    f'fill="{COLOURS[index]}"/>')
        body.append(text(width - 327, at + 11, LISTS[name].replace("`", ""), **{"font-size": 11}))
    return svg(width, height, body)


# ---- document ----

def machine():
    model, cores = "unknown processor", os.cpu_count()
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for row in file:
            if row.startswith(("model name", "Hardware")):
                model = row.split(":", 1)[1].strip()
                break
    release = os.uname()
    return f"{model}, {cores} cores, {release.sysname} {release.release} on {release.machine}"


def document(entries, options):
    with open(os.path.join(HERE, "performance.md.in"), encoding="utf-8") as file:
        template = file.read()

    def fill(match):
        words = match.group(1).split()
        if words[0] == "machine":
            return machine()
        if words[0] == "load":
            return options.load + (" (measured all the same)" if options.anyway else "")
        if words[0] == "table":
            return table(entries, words[1:], options.anyway)
        if words[0] == "lists":
            names = [f"{name}/{rows}" for name in LISTS for rows in SIZES]
            return table(entries, names, options.anyway)
        if words[0] == "growth":
            return growth_table(entries)
        if words[0] == "messages":
            return message_table(entries)
        if words[0] == "startup":
            return startup_table(entries)
        if words[0] == "cost":
            return cost_table(entries)
        if words[0] == "figure":
            entry = entries.get(words[1])
            value = entry.figure(words[2]) if entry else math.nan
            return "not measured" if math.isnan(value) else f"{value:,.{int(words[3])}f}"
        if words[0] == "time":
            entry = entries.get(words[1])
            values = getattr(entry, words[2]) if entry else []
            return seconds(statistics.median(values)) if values else "not measured"
        sys.exit(f"performance.md.in: {{{{{match.group(1)}}}}} is not known")

    return re.sub(r"\{\{([^}]+)\}\}", fill, template)


def write_documents(entries, options):
    plots = os.path.join(options.write, "performance")
    os.makedirs(plots, exist_ok=True)
    for name, plot in (("ratios", ratios_plot), ("startup", startup_plot), ("lists", lists_plot)):
        with open(os.path.join(plots, name + ".svg"), "w", encoding="utf-8") as file:
            file.write(plot(entries))
    with open(os.path.join(options.write, "performance.md"), "w", encoding="utf-8") as file:
        file.write(document(entries, options))


def print_summary(entries, options):
    """What each benchmark gave; returns (failed, without a verdict)."""
    failed, undecided = list(options.failed.split()), []
    for name, entry in entries.items():
        if entry.error:
            (undecided if entry.error.startswith("no verdict") else failed).append(name)
            print(f"{name:26} {entry.error}")
        elif entry.ratio:
            verdict = entry.verdict(options.anyway)
            if verdict.startswith("no verdict"):
                undecided.append(name)
            print(f"{name:26} {entry.median():7.3f} ({min(entry.ratio):.3f}-{max(entry.ratio):.3f})  "
                  f"goal {entry.goal_text():8} {verdict}")
        else:
            print(f"{name:26} " + ", ".join(
                f"{key} {entry.figure(key):g}" for key in sorted(entry.figures)))
    return failed, undecided


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--results", required=True)
    parser.add_argument("--write", default="")
    parser.add_argument("--load", default="")
    parser.add_argument("--notes", default="")
    parser.add_argument("--failed", default="")
    parser.add_argument("--slow", default="")
    options = parser.parse_args()
    options.anyway = "--anyway" in options.notes
    entries = read_results(options.results)
    # Left out for want of something that not every machine has; nothing failed.
    for entry in entries.values():
        if entry.error and options.slow and "no slow device" in entry.error:
            entry.error, entry.left_out = options.slow, True
        elif entry.error and "no build for 32-bit ARM" in entry.error:
            entry.error, entry.left_out = "not measured: " + entry.error.split(": ", 1)[1], True
    failed, undecided = print_summary(entries, options)
    failed = [name for name in failed if not getattr(entries.get(name), "left_out", False)]
    if options.write:
        write_documents(entries, options)
    if failed:
        print("failed: " + " ".join(failed))
    if undecided:
        print("no verdict: " + " ".join(undecided))
    return 1 if failed else 4 if undecided else 0


sys.exit(main())
