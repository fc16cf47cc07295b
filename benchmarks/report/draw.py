#!/usr/bin/env python3
"""Draws the results of the benchmarks and writes the figures into docs/performance.md.

draw.py RESULTS DOCS reads stores.json, floor.json and micro.json from the folder RESULTS, writes
performance.svg and performance-curve.svg to the folder DOCS, and replaces the text between the
lines "<!-- begin NAME -->" and "<!-- end NAME -->" in the performance.md there, if it exists. If a
file of results is missing, its part stays as it is.
"""
import json
import math
import pathlib
import re
import statistics
import sys
from xml.sax.saxutils import escape

HIGHLIGHT = ("#8fb7e3", "#1f5fa8")
PLAIN = ("#cfcfcb", "#8a8a85")
INK = "#222222"
FAINT = "#77776f"
LINES = ("#1f5fa8", "#c2571a", "#2b7a4b", "#8a3f8f", "#a8851c", "#5b6b7b")
FONT = "font-family='Helvetica, Arial, sans-serif'"

PANELS = (
    ("save_ns", "save, ns per effect"),
    ("all_once_ns", "all found once, ns per effect"),
    ("hot_20_ns", "20 hot, ns per search"),
    ("hot_200_ns", "200 hot, ns per search"),
    ("absent_ns", "absent names, ns per search"),
    ("open_ms", "open, ms"),
)
TIMES = (
    ("save", "save_ns", 0),
    ("open, ms", "open_ms", 2),
    ("all once", "all_once_ns", 0),
    ("20 hot", "hot_20_ns", 0),
    ("200 hot", "hot_200_ns", 0),
    ("absent", "absent_ns", 0),
    ("absent once", "absent_once_ns", 0),
)
PROCESSES = (
    ("first search after a save, ms", "after_save_ms", 3),
    ("search, four processes", "search_beside_save_ns", 0),
    ("save beside them", "save_beside_search_ns", 0),
)
SPACE = (
    ("disk, bytes per byte", "disk_ratio", 2),
    ("peak saving, B per effect", "save_peak_bytes", 0),
    ("heap part", "save_heap_peak_bytes", 0),
    ("peak searching, B per effect", "search_peak_bytes", 0),
    ("heap part", "search_heap_peak_bytes", 0),
)
CALLS = (
    ("save", "save_calls", 2),
    ("all once", "all_once_calls", 2),
    ("20 hot", "hot_20_calls", 2),
    ("absent", "absent_calls", 2),
)


def number(value, digits=0):
    return f"{value:,.{digits}f}"


def quantile(samples, part):
    ordered = sorted(samples)
    place = part * (len(ordered) - 1)
    below = math.floor(place)
    above = min(below + 1, len(ordered) - 1)
    return ordered[below] + (ordered[above] - ordered[below]) * (place - below)


def spread(samples):
    """Half the interquartile range, in percent of the median."""
    median = statistics.median(samples)
    return 50 * (quantile(samples, 0.75) - quantile(samples, 0.25)) / median if median else 0


# ---- Tables -------------------------------------------------------------------------------------


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|---" + "|---:" * (len(header) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def cell(store, name, digits):
    samples = store.get(name)
    if not samples:
        return "–"
    text = number(statistics.median(samples), digits)
    return text if len(samples) < 2 else f"{text} ±{spread(samples):.0f} %"


def store_table(entry, columns):
    rows = [
        [store["title"]] + [cell(store, name, digits) for _, name, digits in columns]
        for store in entry["stores"].values()
    ]
    return table(["store"] + [title for title, _, _ in columns], rows)


def by_count(results, columns):
    parts = []
    for entry in results["results"]:
        size = entry["effect_bytes"] / entry["count"]
        parts.append(
            f"{number(entry['count'])} effects, {number(entry['effect_bytes'] / 2**20, 1)} MiB "
            f"(mean {number(size)} bytes, names of {number(entry['name_bytes'] / entry['count'])}):"
            "\n\n" + store_table(entry, columns)
        )
    return "\n".join(parts)


def machine(results):
    told = results["machine"]
    rounds = max(
        len(store.get("save_ns", ()))
        for entry in results["results"]
        for store in entry["stores"].values()
    )
    return (
        f"{told['processor']}, {told['cores']} cores, {told['system']}, GCC {told['compiler']}, "
        f"{told['date']}; load average at the start {told['load']:.1f}; effects: "
        f"{results['effects']}; {rounds} rounds. "
        + ("Times are wall-clock times.\n" if told["clock"] == "wall" else
           "The machine was busy, so times are processor times of all threads of the process, "
           "except where several processes take part.\n")
    )


def floor_table(results):
    rows = []
    for entry in results["results"]:
        for name, phase in entry["phases"].items():
            count = entry["count"]
            rows.append(
                [f"{name}, {number(count)}"]
                + [number(statistics.median(phase[key])) for key in ("quorvel_ns", "floor_ns")]
                + [number(phase["quotient"], 2)]
                + [number(statistics.median(phase["stdio_ns"]))]
                + [number(phase["stdio_quotient"], 2)]
                + [
                    number(phase[key] / count, 2)
                    for key in ("pages_read", "pages_written", "pages_grown", "calls")
                ]
            )
    header = ["step", "Quorvel, ns", "floor, ns", "quotient", "through stdio, ns", "quotient"]
    return table(header + ["pages read", "written", "grown", "system calls"], rows)


def processor_times(results):
    """{name: nanoseconds} of all benchmarks, the median of the repetitions of each."""
    unit = {"ns": 1, "us": 1e3, "ms": 1e6}
    times = {}
    for run in results["benchmarks"]:
        if run.get("run_type", "iteration") == "iteration":
            name = re.sub(r"/iterations:\d+", "", run["name"])
            times.setdefault(name, []).append(run["cpu_time"] * unit[run["time_unit"]])
    return {name: statistics.median(repetitions) for name, repetitions in times.items()}


def curves(results, prefix):
    """{name: {count: nanoseconds}} of the benchmarks below a prefix."""
    found = {}
    for name, time in processor_times(results).items():
        match = re.match(prefix + r"/(\w+)/(\d+)", name)
        if match:
            found.setdefault(match[1], {})[int(match[2])] = time
    return found


def in_milliseconds(lines):
    return {
        name: {count: time / 1e6 for count, time in points.items()}
        for name, points in lines.items()
    }


def curve_table(results):
    parts = []
    for prefix, note in (("Curve", "Nanoseconds"), ("Walk", "Nanoseconds per effect or stream")):
        lines = curves(results, prefix)
        counts = sorted({count for points in lines.values() for count in points})
        rows = [
            [name]
            + [
                number(points[count] / (count if prefix == "Walk" else 1))
                if count in points
                else "–"
                for count in counts
            ]
            for name, points in lines.items()
        ]
        parts.append(f"{note}:\n\n" + table([""] + [number(count) for count in counts], rows))
    return "\n".join(parts)


def parts_table(results):
    rows = [
        [name, number(time, 1)]
        for name, time in processor_times(results).items()
        if not name.startswith(("Curve/", "Walk/"))
    ]
    return table(["", "ns"], rows)


# ---- Drawings -----------------------------------------------------------------------------------


def text(x, y, what, size=12, anchor="start", fill=INK, weight="normal"):
    return (
        f"<text x='{x:.1f}' y='{y:.1f}' font-size='{size}' text-anchor='{anchor}' fill='{fill}' "
        f"font-weight='{weight}'>{escape(what)}</text>"
    )


def document(width, height, parts):
    return (
        f"<svg xmlns='http://www.w3.org/2000/svg' width='{width}' height='{height}' "
        f"viewBox='0 0 {width} {height}' {FONT}>\n<rect width='100%' height='100%' fill='white'/>\n"
        + "\n".join(parts)
        + "\n</svg>\n"
    )


def bar_panel(x, y, width, title, name, digits, entries):
    """The bars of all stores for one figure, one per number of effects, and their height."""
    label, value_room, bar, gap = 78, 64, 11, 8
    stores = list(entries[0]["stores"])
    values = {
        (store, index): entry["stores"].get(store, {}).get(name)
        for store in stores
        for index, entry in enumerate(entries)
    }
    top = max(statistics.median(samples) for samples in values.values() if samples)
    scale = (width - label - value_room) / top
    parts = [text(x, y + 12, title, 13, weight="bold")]
    row = y + 24
    for store in stores:
        own = store == "quorvel"
        parts.append(
            text(x + label - 8, row + len(entries) * bar / 2 + 4, entries[0]["stores"][store]["title"],
                 12, "end", weight="bold" if own else "normal")
        )
        for index in range(len(entries)):
            samples = values[store, index]
            if samples:
                median = statistics.median(samples)
                shade = (HIGHLIGHT if own else PLAIN)[index % 2]
                length = max(median * scale, 1)
                parts.append(
                    f"<rect x='{x + label}' y='{row}' width='{length:.1f}' height='{bar - 1}' "
                    f"fill='{shade}'/>"
                )
                low, high = quantile(samples, 0.25) * scale, quantile(samples, 0.75) * scale
                middle = row + (bar - 1) / 2
                parts.append(
                    f"<line x1='{x + label + low:.1f}' y1='{middle}' x2='{x + label + high:.1f}' "
                    f"y2='{middle}' stroke='{INK}' stroke-width='1'/>"
                )
                end = x + label + max(length, high)
                parts.append(text(end + 5, row + bar - 2, number(median, digits), 10, fill=FAINT))
            row += bar
        row += gap
    return parts, row - y


def draw_stores(results):
    entries = results["results"]
    digits = {name: places for _, name, places in TIMES}
    width, margin, columns = 960, 24, 2
    column = (width - margin * (columns + 1)) / columns
    counts = " and ".join(number(entry["count"]) for entry in entries)
    parts = [
        text(margin, 32, f"{counts} effects in six stores", 17, weight="bold"),
        text(margin, 51, "Lighter upper bars: the smaller number. Medians; the line in a bar spans "
             "the quartiles. Lower is better.", 12, fill=FAINT),
    ]
    y = 70
    for start in range(0, len(PANELS), columns):
        height = 0
        for index, (name, title) in enumerate(PANELS[start:start + columns]):
            x = margin + index * (column + margin)
            drawn, tall = bar_panel(x, y, column, title, name, digits[name], entries)
            parts += drawn
            height = max(height, tall)
        y += height + 16
    return document(width, int(y), parts)


def draw_curves(results):
    width, height = 960, 420
    top, bottom, left, right = 70, 46, 70, 150
    panel = (width - 24) / 2
    parts = [
        text(24, 32, "Main operations over the number of effects", 17, weight="bold"),
        text(24, 51, "Both scales are logarithmic. The dotted line shows linear growth.", 12,
             fill=FAINT),
    ]
    shown = (
        ("one operation, ns", curves(results, "Curve"),
         ("SearchHot", "SearchAbsent", "SearchRandom", "StreamOpen", "StreamReplace",
          "AllocatorReuse")),
        ("operations on all effects, ms", in_milliseconds(curves(results, "Walk")),
         ("SaveHundred", "IndexLoad", "PackageCommit", "PackageLoad", "StreamCreate")),
    )
    for index, (title, lines, names) in enumerate(shown):
        lines = {name: lines[name] for name in names if name in lines}
        if not lines:
            continue
        values = [value for points in lines.values() for value in points.values()]
        counts = sorted({count for points in lines.values() for count in points})
        low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
        x0, x1 = index * panel + left, index * panel + panel - right + 24
        y0, y1 = height - bottom, top + 16

        def across(count):
            return x0 + (x1 - x0) * math.log(count / counts[0]) / math.log(counts[-1] / counts[0])

        def up(value):
            return y0 + (y1 - y0) * (math.log10(value) - low) / (high - low)

        parts.append(text(x0 - 46, top + 2, title, 13, weight="bold"))
        for power in range(low, high + 1):
            y = up(10**power)
            parts.append(f"<line x1='{x0}' y1='{y:.1f}' x2='{x1}' y2='{y:.1f}' stroke='#e3e3de'/>")
            mark = number(10**power, max(0, -power))
            parts.append(text(x0 - 6, y + 4, mark, 10, "end", FAINT))
        for count in counts:
            parts.append(text(across(count), y0 + 16, number(count / 1000) + "k", 10, "middle", FAINT))
        slope_end = min(10**high, 10**low * 2 * counts[-1] / counts[0])
        slope_count = counts[0] * slope_end / (10**low * 2)
        parts.append(
            f"<line x1='{x0}' y1='{up(10**low * 2):.1f}' x2='{across(slope_count):.1f}' "
            f"y2='{up(slope_end):.1f}' stroke='{FAINT}' stroke-dasharray='2 4'/>"
        )
        ends = sorted(((up(points[max(points)]), name) for name, points in lines.items()))
        labels, last = {}, -math.inf
        for y, name in ends:
            last = max(y, last + 13)
            labels[name] = last
        for place, (name, points) in enumerate(lines.items()):
            colour = LINES[place % len(LINES)]
            path = " ".join(f"{across(c):.1f},{up(v):.1f}" for c, v in sorted(points.items()))
            parts.append(
                f"<polyline points='{path}' fill='none' stroke='{colour}' stroke-width='2'/>"
            )
            parts.append(text(x1 + 6, labels[name] + 4, name, 11, fill=colour))
    return document(width, height, parts)


# ---- The document -------------------------------------------------------------------------------


def replace_part(page, name, content):
    begin, end = f"<!-- begin {name} -->\n", f"<!-- end {name} -->"
    if begin not in page or end not in page:
        return page
    before, rest = page.split(begin, 1)
    return before + begin + content + end + rest.split(end, 1)[1]


def load(folder, name):
    path = folder / name
    return json.loads(path.read_text()) if path.exists() else None


def main(results_folder, docs_folder):
    results_folder, docs = pathlib.Path(results_folder), pathlib.Path(docs_folder)
    stores = load(results_folder, "stores.json")
    floor = load(results_folder, "floor.json")
    micro = load(results_folder, "micro.json")
    parts = {}
    if stores:
        (docs / "performance.svg").write_text(draw_stores(stores))
        parts["machine"] = machine(stores)
        for name, columns in (("stores", TIMES), ("processes", PROCESSES), ("space", SPACE),
                              ("calls", CALLS)):
            parts[name] = by_count(stores, columns)
    if floor:
        parts["floor"] = floor_table(floor)
    if micro:
        (docs / "performance-curve.svg").write_text(draw_curves(micro))
        parts["curve"] = curve_table(micro)
        parts["parts"] = parts_table(micro)
    page = docs / "performance.md"
    if page.exists():
        content = page.read_text()
        for name, part in parts.items():
            content = replace_part(content, name, part)
        page.write_text(content)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2])
