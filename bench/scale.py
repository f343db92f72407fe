#!/usr/bin/env python3
"""Prints what one more costs, states the slope, and draws it: groups (keeper's look, OOM poll, a change of limits),
components, threads (report), open descriptors (round), waiting events (acceptance of the next).

  scale.py [--build DIRECTORY] [--only SERIES,...] [--draw FILE]

The slope is that of a line through the points in double logarithms: 0 is a cost that does not grow, 1 one that grows
as its number does. Needs root. The plot is written by this script, readable on light and on dark ground.
"""
import argparse
import math
import os
import shutil
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # nothing is left in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from processes import COMPONENTS, Agent, end_on_request, measure  # noqa: E402
from rows import Bench, NotMeasured, SOURCE  # noqa: E402

IDLE_SECONDS = 20
MANY = 64
EVENTS = 100000
# name of the series: (title, unit of x)
SERIES = {
    "keeper": ("keeper's look", "groups"),
    "oom-poll": ("OOM poll", "groups"),
    "change": ("change of all limits", "groups"),
    "threads-facts": ("thread facts", "threads"),
    "threads-report": ("thread report", "threads"),
    "round-descriptors": ("sampling round", "open descriptors"),
    "accept-waiting": ("acceptance of an event", "waiting events"),
    "components-main": ("main process, idle, a second", "components"),
    "components-one": ("one component, idle, a second", "components"),
    "components-start": ("start to limits in force", "components"),
}
WIDTH, HEIGHT, COLUMNS = 420, 200, 2
LEFT, RIGHT, TOP, BOTTOM = 66, 38, 48, 36
LETTER = 6.5  # width of a tick's, about


def slope(points):
    """Of the line through the logarithms."""
    xs = [math.log(x) for x, _ in points]
    ys = [math.log(max(y, 1e-9)) for _, y in points]
    middle_x, middle_y = sum(xs) / len(xs), sum(ys) / len(ys)
    spread = sum((x - middle_x) ** 2 for x in xs)
    return sum((x - middle_x) * (y - middle_y) for x, y in zip(xs, ys)) / spread if spread else 0.0


def amount(us):
    return f"{us:.3g} us" if us < 1000 else f"{us / 1000:.3g} ms" if us < 1e6 else f"{us / 1e6:.3g} s"


def count(number):
    return f"{number:,}"


def components(bench, found):
    for number in (len(COMPONENTS) + 1, MANY):
        names = COMPONENTS + [f"More{i}" for i in range(number - len(COMPONENTS))]
        agent = Agent(bench.build, bench.directory, SOURCE, components=names)
        try:
            started = agent.start(300)
            time.sleep(IDLE_SECONDS)
            rows = measure({"main": agent.process.pid, "one": agent.children()[0]}, IDLE_SECONDS)
        finally:
            agent.stop()
        found["components-start"].append((number, started * 1e6))
        found["components-main"].append((number, rows["main"]["cpu_us_s"]))
        found["components-one"].append((number, rows["one"]["cpu_us_s"]))


def collect(bench, only):
    found = {name: [] for name in SERIES}
    programs = [("groups", ("keeper", "oom-poll", "change"), ["BenchScale", "groups", bench.app("groups")]),
                ("threads", ("threads-facts", "threads-report"), ["BenchThreadReport"]),
                ("descriptors", ("round-descriptors",), ["BenchScale", "descriptors", bench.app("fds"), "10000"]),
                ("events", ("accept-waiting",), ["BenchScale", "events", bench.app("events"), str(EVENTS)])]
    for part, names, command in programs:
        if part not in only:
            continue
        try:
            figures = bench.scale(*command)
        except NotMeasured as why:
            print(f"not measured: {part}: {why}")
            continue
        for (what, number), (us, _) in sorted(figures.items()):
            if what in names:
                found[what].append((number, us))
    if "components" in only:
        components(bench, found)
    return {name: points for name, points in found.items() if points}


def show(found):
    print(f"{'what':32} {'how many':>26} {'cost':>10} {'of one':>10}  slope")
    for name, points in found.items():
        title, unit = SERIES[name]
        for number, us in points:
            print(f"{title:32} {count(number):>10} {unit:15} {amount(us):>10} {amount(us / number):>10}  "
                  f"{slope(points):.2f}")


def panel(name, points, left, top):
    """One small plot in double logarithms with its own axes."""
    title, unit = SERIES[name]
    inner_w, inner_h = WIDTH - LEFT - RIGHT, HEIGHT - TOP - BOTTOM
    x0, x1 = math.log10(points[0][0]), max(math.log10(points[-1][0]), math.log10(points[0][0]) + 1)
    low = math.floor(math.log10(max(min(y for _, y in points), 1e-3)))
    high = max(math.ceil(math.log10(max(y for _, y in points)) + 0.05), low + 2)

    def place(x, y):
        return (left + LEFT + inner_w * (math.log10(x) - x0) / (x1 - x0),
                top + TOP + inner_h * (1 - (math.log10(max(y, 1e-3)) - low) / (high - low)))
    parts = [f'<text class="title" x="{left + LEFT}" y="{top + 23}">{title}</text>',
             f'<text class="note" x="{left + LEFT}" y="{top + 38}">by {unit}, slope {slope(points):.2f}</text>']
    for power in range(low, high + 1):
        _, y = place(points[0][0], 10.0 ** power)
        parts.append(f'<line class="grid" x1="{left + LEFT}" y1="{y:.1f}" x2="{left + WIDTH - RIGHT}" y2="{y:.1f}"/>')
        parts.append(f'<text class="tick" text-anchor="end" x="{left + LEFT - 5}" y="{y + 3.5:.1f}">'
                     f'{amount(10.0 ** power)}</text>')
    taken = -math.inf
    for number, us in points:
        x, _ = place(number, us)
        half = LETTER * len(count(number)) / 2
        if x - half > taken:  # a number that would stand in another is left out
            parts.append(f'<text class="tick" text-anchor="middle" x="{x:.1f}" y="{top + HEIGHT - BOTTOM + 17}">'
                         f'{count(number)}</text>')
            taken = x + half
    # What it would be if it grew as the number does, as far as the panel goes.
    first, last = points[0], points[-1]
    end = min(last[0], first[0] * 10.0 ** high / first[1])
    ends = [*place(*first), *place(end, first[1] * end / first[0])]
    parts.append('<line class="guide" x1="{:.1f}" y1="{:.1f}" x2="{:.1f}" y2="{:.1f}"/>'.format(*ends))
    spots = [place(x, y) for x, y in points]
    parts.append('<polyline class="line" points="' + " ".join(f"{x:.1f},{y:.1f}" for x, y in spots) + '"/>')
    parts += [f'<circle class="spot" cx="{x:.1f}" cy="{y:.1f}" r="3.5"><title>{count(number)} {unit}: {amount(us)}'
              f'</title></circle>' for (x, y), (number, us) in zip(spots, points)]
    return parts


# A viewer's scheme and its page's ground may differ, so the plot brings its own ground.
STYLE = """.ground{fill:#fff}text{font-family:system-ui,sans-serif;fill:#24292f}.title{font-size:13px;font-weight:600}
.note,.tick{font-size:11px;fill:#57606a}.grid{stroke:#d0d7de;stroke-width:1}
.line{fill:none;stroke:#0969da;stroke-width:2}.spot{fill:#0969da}
.guide{stroke:#8c959f;stroke-width:1.5;stroke-dasharray:5 4}
@media (prefers-color-scheme:dark){.ground{fill:#0d1117}.guide{stroke:#6e7681}text{fill:#e6edf3}.note,.tick{fill:#9198a1}.grid{stroke:#3d444d}
.line{stroke:#58a6ff}.spot{fill:#58a6ff}}"""


def draw(path, found):
    rows = (len(found) + COLUMNS - 1) // COLUMNS
    width, height = WIDTH * COLUMNS, HEIGHT * rows + 14
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
             f'height="{height}" role="img" aria-label="What one more costs">', f"<style>{STYLE}</style>",
             f'<rect class="ground" width="{width}" height="{height}" rx="6"/>']
    for number, (name, points) in enumerate(found.items()):
        lines += panel(name, points, number % COLUMNS * WIDTH, number // COLUMNS * HEIGHT)
    with open(path, "w") as file:
        file.write("\n".join(lines + ["</svg>", ""]))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="build directory with release flags")
    parser.add_argument("--only", default="groups,threads,descriptors,events,components")
    parser.add_argument("--draw", metavar="FILE")
    options = parser.parse_args()
    end_on_request()
    if os.geteuid() != 0:
        sys.exit("scale: needs root: control groups are made")
    build = os.path.abspath(options.build)
    directory = tempfile.mkdtemp(prefix="scale.", dir=build)
    try:
        found = collect(Bench(build, directory), options.only.split(","))
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    show(found)
    if options.draw:
        draw(options.draw, found)
    return 0


if __name__ == "__main__":
    sys.exit(main())
