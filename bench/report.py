#!/usr/bin/env python3
"""report.py --results FOLDER [--write DOCS] [--load L] [--notes TEXT] [--failed GROUPS] [--slow TEXT]

Prints what the benchmarks in FOLDER/*.json measured, and with --write fills the template
performance.md.in: DOCS/performance.md and DOCS/performance/*.svg. Exit status 1 when a benchmark
failed, 4 when one gave no verdict because of the machine's load, else 0.
"""
import argparse
import math
import os
import re
import statistics
import sys

from plots import lists_plot, ratios_plot, startup_plot
from results import LISTS, SIZES, read_results, seconds
from tables import cost_table, growth_table, message_table, startup_table, table

HERE = os.path.dirname(os.path.abspath(__file__))


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
