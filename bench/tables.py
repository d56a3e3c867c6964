"""The tables of performance.md."""
import statistics

from results import LISTS, SIZES, STEPS, TITLES, seconds


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
            ("stream_chunk_heap_KiB", "open stream chunk, from the heap (its two buffers of 1 MiB are pages of their own)", "KiB"),
            ("stream_chunk_resident_KiB",
             "open stream chunk in use, memory occupied (its write thread's stack included)", "KiB"),
            ("picture_chunk_heap_KiB", "open picture chunk, from the heap (its two buffers of 32 KiB are pages of their own)",
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
