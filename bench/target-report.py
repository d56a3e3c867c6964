#!/usr/bin/env python3
"""target-report.py --root FOLDER --console FILE --card BYTES [--write FILE]

Prints what the files of the board in FOLDER take, and what tarn-sizes said on the board's console;
with --write fills the template target.md.in as well. Exit status 1 when a figure is missing.
"""
import argparse
import os
import re
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
TOOLS = "arm-linux-gnueabihf-"
FILES = [("libTarn.so.1", "lib/libTarn.so.1.0.0"),
         ("libTarnRecorder.so.1", "lib/libTarnRecorder.so.1.0.0"),
         ("tarn-server", "usr/local/bin/tarn-server"),
         ("dbsetup", "usr/local/bin/dbsetup"),
         ("tarn", "usr/local/bin/tarn")]
MOMENTS = ("started", "opened", "written")
OURS = "libTarn.so.1"
BUFFERS = ("stream-buffers", "picture-buffers")


def fail(why):
    sys.exit(f"target-report.py: {why}")


def run(*words):
    result = subprocess.run(words, check=False, capture_output=True, text=True)
    if result.returncode != 0:
        fail(f"{words[0]}: {result.stderr.strip()}")
    return result.stdout


def kib(value):
    return f"{value:,} KiB"


class Files:
    """What the stripped files are and need."""

    def __init__(self, root):
        self.rows = []
        self.paths = [os.path.join(root, place) for _, place in FILES]
        for (name, _), path in zip(FILES, self.paths):
            words = run(TOOLS + "size", path).splitlines()[1].split()
            self.rows.append((name, os.path.getsize(path), *map(int, words[:3])))

    def table(self):
        lines = ["| file, stripped | bytes | text | data | bss |", "|---|--:|--:|--:|--:|"]
        for name, *sizes in self.rows:
            lines.append(f"| `{name}` | " + " | ".join(f"{size:,}" for size in sizes) + " |")
        return "\n".join(lines)

    def newest(self, prefix):
        """The newest version of a library's symbols that any of the files asks for."""
        versions = set()
        for path in self.paths:
            versions |= set(re.findall(prefix + r"_(\d+(?:\.\d+)+)", run(TOOLS + "readelf", "-VW", path)))
        if not versions:
            fail(f"no versions of {prefix}")
        return max(versions, key=lambda text: [int(part) for part in text.split(".")])

    def attribute(self, name):
        """An attribute of the architecture, the same in all files."""
        values = {tuple(re.findall(f"Tag_{name}: (.*)", run(TOOLS + "readelf", "-A", path)))
                  for path in self.paths}
        if len(values) != 1 or len(next(iter(values))) != 1:
            fail(f"Tag_{name} is {values}")
        return next(iter(values))[0].strip('"')


class Console:
    """What tarn-sizes said, in KiB."""

    def __init__(self, path):
        self.pages, self.totals = {}, {}
        with open(path, encoding="utf-8", errors="replace") as file:
            text = file.read().replace("\r", "")
        for who, when, name, of_file, own in re.findall(
                r"^BOARD pages (\S+) (\S+) (.+) file (\d+) own (\d+)$", text, re.M):
            self.pages.setdefault((who, when), {})[self.short(name)] = (int(of_file), int(own))
        for who, when, rss, pss, own in re.findall(
                r"^BOARD total (\S+) (\S+) rss (\d+) pss (\d+) own (\d+)$", text, re.M):
            self.totals[who, when] = (int(rss), int(pss), int(own))
        up = re.search(r"^BOARD up, (\S+), (\S+)$", text, re.M)
        size = re.search(r"^BOARD object (\d+)$", text, re.M)
        missing = [key for key in ((who, when) for who in ("self", "server") for when in MOMENTS)
                   if key not in self.pages or key not in self.totals]
        if missing or not up or not size:
            fail(f"the board did not say everything: {missing}")
        self.machine, self.kernel = up.groups()
        self.object_bytes = int(size.group(1))
        self.check()

    @staticmethod
    def short(name):
        return re.sub(r"(\.so\.\d+)\..*", r"\1", name)

    def check(self):
        """The pages of all names are those that the kernel counts."""
        for key, (rss, _, own) in self.totals.items():
            pages = self.pages[key].values()
            sums = sum(map(sum, pages)), sum(own_pages for _, own_pages in pages)
            # Between the two ways to count, a page or two more may be needed.
            if abs(sums[0] - rss) > 64 or abs(sums[1] - own) > 64:
                fail(f"{key}: pages of {sums} KiB, the kernel says {rss} and {own}")

    def of(self, who, when, names):
        pages = self.pages[who, when]
        return tuple(sum(pages.get(name, (0, 0))[kind] for name in names) for kind in (0, 1))

    def others(self, who, program):
        """Names of libraries that are not ours."""
        names = {name for (owner, _), pages in self.pages.items() if owner == who for name in pages}
        return sorted(name for name in names if ".so" in name and not name.startswith("libTarn") and
                      name != program)

    def rest(self, who, known):
        names = {name for (owner, _), pages in self.pages.items() if owner == who for name in pages}
        return sorted(names - set(known))

    def own_table(self):
        others = self.others("self", "tarn-sizes")
        rows = [("`libTarn.so.1`: code and constants, shared by all processes", [OURS], 0),
                ("`libTarn.so.1`: data and relocated tables", [OURS], 1),
                ("two buffers of the stream chunk", [BUFFERS[0]], 1),
                ("two buffers of the picture chunk", [BUFFERS[1]], 1),
                ("stacks of the two write threads", ["write-threads"], 1)]
        known = [OURS, *BUFFERS, "write-threads", "tarn-sizes", *others]
        rest = self.rest("self", known)
        rows += [("heap, main stack and the like", rest, 1),
                 ("other libraries: code and constants, shared", others, 0),
                 ("other libraries: data", others, 1),
                 ("the measuring program itself", ["tarn-sizes"], None)]
        lines = ["| of the process | library loaded | chunks open | written |", "|---|--:|--:|--:|"]
        for title, names, kind in rows:
            values = [self.of("self", when, names) for when in MOMENTS]
            cells = [kib(sum(value) if kind is None else value[kind]) for value in values]
            lines.append(f"| {title} | " + " | ".join(cells) + " |")
        return "\n".join(lines + self.total_rows("self"))

    def total_rows(self, who):
        titles = ("resident (RSS)", "its share (PSS)", "its own alone")
        return [f"| **{title}** | " + " | ".join(kib(self.totals[who, when][i]) for when in MOMENTS) + " |"
                for i, title in enumerate(titles)]

    def server_table(self):
        others = self.others("server", "tarn-server")
        ours = [OURS, "libTarnRecorder.so.1", "tarn-server"]
        rest = self.rest("server", ours + others)
        rows = [("`libTarn.so.1`, `libTarnRecorder.so.1`, `tarn-server`: code and constants", ours, 0),
                ("the same: data", ours, 1),
                ("heap, stacks, data without initial values", rest, 1),
                ("other libraries: code and constants", others, 0),
                ("other libraries: data", others, 1)]
        lines = ["| of the server | no process connected | chunks open | written |", "|---|--:|--:|--:|"]
        for title, names, kind in rows:
            cells = [kib(self.of("server", when, names)[kind]) for when in MOMENTS]
            lines.append(f"| {title} | " + " | ".join(cells) + " |")
        return "\n".join(lines + self.total_rows("server"))

    def growth(self):
        """What opening both chunks and writing adds to what is the process's own."""
        return self.totals["self", "written"][2] - self.totals["self", "started"][2]


def figures(files, console, options):
    library = files.rows[0]
    return {
        "files": files.table(),
        "library_KiB": kib(round(library[1] / 1024)),
        "memory": console.own_table(),
        "server": console.server_table(),
        "growth": kib(console.growth()),
        "buffers": kib(console.of("self", "written", BUFFERS)[1]),
        "object_bytes": f"{console.object_bytes:,} bytes",
        "server_own": kib(console.totals["server", "written"][2]),
        "others": ", ".join(f"`{name}`" for name in console.others("self", "tarn-sizes")),
        "kernel": console.kernel,
        "machine": console.machine,
        "card_MiB": f"{options.card // (1 << 20)} MiB",
        "compiler": run(TOOLS + "g++", "--version").splitlines()[0],
        "qemu": run("qemu-system-arm", "--version").splitlines()[0],
        "architecture": files.attribute("CPU_arch"),
        "instructions": files.attribute("THUMB_ISA_use"),
        "float": files.attribute("FP_arch"),
        "float_calls": files.attribute("ABI_VFP_args"),
        "glibc": files.newest("GLIBC"),
        "glibcxx": files.newest("GLIBCXX"),
    }


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--console", required=True)
    parser.add_argument("--card", type=int, required=True)
    parser.add_argument("--write")
    options = parser.parse_args()
    values = figures(Files(options.root), Console(options.console), options)
    for name in ("files", "memory", "server", "growth"):
        print(values[name])
    if not options.write:
        return
    with open(os.path.join(HERE, "target.md.in"), encoding="utf-8") as file:
        template = file.read()
    unknown = set(re.findall(r"\{\{(.*?)\}\}", template)) - set(values)
    if unknown:
        fail(f"target.md.in: {unknown} not known")
    with open(options.write, "w", encoding="utf-8") as file:
        file.write(re.sub(r"\{\{(.*?)\}\}", lambda match: values[match.group(1)], template))


main()
