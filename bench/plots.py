"""The plots beside performance.md, as SVG."""
import math
import statistics
from xml.sax.saxutils import escape

from results import COST, LISTS, NONE, SIZES, STEPS, TITLES, seconds
from tables import startup_entries

COLOURS = ["#4e79a7", "#f28e2b", "#e15759", "#76b7b2", "#59a14f", "#edc948", "#b07aa1", "#9c755f",
           "#bab0ac"]


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
