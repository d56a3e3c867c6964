"""What the benchmarks measured: their names, and all repetitions of each."""
import glob
import json
import math
import os
import re
import statistics

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
    "viewers/disk": "file on disk",
    "viewers/slow": "device of 10 MB/s",
    "viewers/cold": "device of 10 MB/s, nothing of it in memory",
    "export/mp4": "to .mp4, against `ffmpeg -c copy`",
    "mount/slow": "movies read, device of 10 MB/s",
    "mount/card": "movies read, device of 90 MB/s",
    "mount/disk": "movies read, file on disk",
    "mount/ram": "movies read, file in memory",
    "mount/list": "10,000 recordings listed with their sizes, against empty files",
    "view/list": "`tarn --card CARD list`",
    "view/export": "`tarn --card CARD export` of a second",
    "check/ram": "card in memory, against one thread that reads",
    "check/ram_both": "card in memory, against two threads that read",
    "check/disk": "card on disk",
    "check/slow": "device of 10 MB/s",
    "crc/28_bytes": "28 bytes, an event record",
    "crc/4_KiB": "4 KiB",
    "server/rate": "requests per second",
    "server/p99": "99th percentile of a request's time",
    "server/rate_threads": "requests per second, against a loop beside a second thread",
    "server/p99_threads": "99th percentile, against a loop beside a second thread",
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
