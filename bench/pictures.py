#!/usr/bin/python3 -IB
# SPDX-License-Identifier: Apache-2.0
"""Draws docs/reports/performance/*.svg from the figures of a run.

    bench/pictures.py FILE [DIRECTORY]     FILE is the output of scripts/bench --json
"""
import json
import math
import sys
from pathlib import Path
from xml.sax.saxutils import escape

WIDTH, LEFT, RIGHT, TOP = 900, 330, 90, 64
OURS, FLOOR, INK, PALE = "#1f5fa8", "#8a8a8a", "#222222", "#dddddd"
PEERS = {"redis": "#c0392b", "rsync": "#1e8449", "dropbear": "#8e44ad", "mosquitto": "#b9770e"}
LINES = ("#1f5fa8", "#c0392b", "#1e8449")


class Drawing:
    """An SVG document with a white background."""

    def __init__(self, height, title):
        self.height = height
        self.parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
                      f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" font-size="13">',
                      f"<title>{escape(title)}</title>",
                      f'<rect width="{WIDTH}" height="{height}" fill="white"/>']
        self.text(20, 28, title, size=17)

    def text(self, x, y, words, anchor="start", fill=INK, size=13):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{fill}" '
                          f'font-size="{size}">{escape(words)}</text>')

    def line(self, x1, y1, x2, y2, stroke=PALE, width=1.0, dash=""):
        dashes = f' stroke-dasharray="{dash}"' if dash else ""
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
                          f'stroke="{stroke}" stroke-width="{width}"{dashes}/>')

    def bar(self, x1, x2, y, height, fill):
        self.parts.append(f'<rect x="{min(x1, x2):.1f}" y="{y:.1f}" width="{abs(x2 - x1):.1f}" '
                          f'height="{height}" fill="{fill}"/>')

    def dot(self, x, y, fill):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="5" fill="{fill}"/>')

    def save(self, path):
        path.write_text("\n".join(self.parts + ["</svg>"]) + "\n", encoding="utf-8")


class LogScale:
    """Maps the values from @p low to @p high to the coordinates from @p begin to @p end."""

    def __init__(self, low, high, begin, end):
        self.low, self.begin = math.log(low), begin
        self.factor = (end - begin) / (math.log(high) - self.low)

    def __call__(self, value):
        return self.begin + (math.log(value) - self.low) * self.factor


def is_rate(row):
    return row["figure"].startswith("rate")


def cost(row, ratio):
    """The cost of the same work: for a rate, the inverse."""
    return 1 / ratio if is_rate(row) else ratio


def peer_cost(row, values):
    best = max if is_rate(row) else min
    return cost(row, best(values) / best(row["floor"]))


def draw_ratios(rows):
    rows = [row for row in rows
            if row["floor"] and row["judge"] == "ratio" and row["number"] != "S"]
    drawing = Drawing(TOP + 30 * len(rows) + 62, "Cost as a multiple of the floor's, best over best")
    scale = LogScale(0.05, 100, LEFT, WIDTH - RIGHT)
    bottom = TOP + 30 * len(rows)
    for mark in (0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100):
        drawing.line(scale(mark), TOP - 8, scale(mark), bottom, INK if mark == 1 else PALE)
        drawing.text(scale(mark), TOP - 14, f"{mark:g}", "middle")
    for place, row in enumerate(rows):
        draw_ratio(drawing, scale, TOP + 30 * place, row)
    legend(drawing, bottom + 34, {"runeld": OURS, **PEERS})
    return drawing


def draw_ratio(drawing, scale, y, row):
    drawing.text(LEFT - 12, y + 17, f"{row['number']}  {row['work']}, {row['figure'].split(',')[0]}",
                 "end", size=11)
    ratio = cost(row, row["best_ratio"])
    drawing.bar(scale(1), scale(ratio), y + 5, 16, OURS)
    drawing.text(WIDTH - 24, y + 17, f"{ratio:.2f}", "end", OURS)
    if row["limit"] is not None:
        target = scale(cost(row, row["limit"]))
        drawing.line(target, y + 1, target, y + 25, INK, 2)
    for name, values in row["peers"].items():
        drawing.dot(scale(peer_cost(row, values)), y + 13, PEERS[name])


def legend(drawing, y, colours):
    x = 30
    for name, colour in colours.items():
        drawing.dot(x, y - 4, colour)
        drawing.text(x + 12, y, name)
        x += 110
    drawing.line(x, y - 12, x, y + 4, INK, 2)
    drawing.text(x + 10, y, "target;  1 is the floor")


def draw_growth(rows):
    rows = [row for row in rows if row["figure"] == "growth exponent"]
    drawing = Drawing(520, "Processor time against size (both logarithmic)")
    points = [point for row in rows for curve in row["curve"].values() for point in curve]
    across = LogScale(1 << 20, 64 << 20, 90, WIDTH - 300)
    low, high = min(p[1] for p in points), max(p[1] for p in points)
    up = LogScale(low / 1.3, high * 1.3, 460, 60)
    for size in (1, 4, 16, 64):
        drawing.line(across(size << 20), 60, across(size << 20), 460)
        drawing.text(across(size << 20), 480, f"{size} MiB", "middle")
    for mark in (0.001, 0.003, 0.01, 0.03, 0.1, 0.3, 1):
        if low / 1.3 <= mark <= high * 1.3:
            drawing.line(90, up(mark), WIDTH - 300, up(mark))
            drawing.text(82, up(mark) + 4, f"{mark * 1000:g} ms", "end")
    for colour, row, place in zip(LINES, rows, range(len(rows))):
        for name, dash in (("runeld", ""), ("floor", "5 4")):
            draw_curve(drawing, [(across(x), up(y)) for x, y in row["curve"][name]], colour, dash)
        draw_key(drawing, 90 + 64 * place, colour, row)
    return drawing


def draw_connections(rows):
    """The round trip of one busy connection against the number of idle ones, both linear."""
    curves = next(row["curve"] for row in rows if row["number"] == "S" and row["curve"])
    drawing = Drawing(420, "Round trip of one busy connection beside idle ones")
    most = max(y for curve in curves.values() for _, y in curve)
    top = math.ceil(most / 50) * 50
    for mark in range(0, top + 1, 50):
        y = 360 - 290 * mark / top
        drawing.line(90, y, WIDTH - 200, y)
        drawing.text(82, y + 4, f"{mark} us", "end")
    for count, _ in curves["runeld"]:
        drawing.text(90 + 600 * count / 900, 382, str(count), "middle")
    for place, (name, dash, colour) in enumerate((("runeld", "", OURS), ("floor", "5 4", FLOOR))):
        points = [(90 + 600 * x / 900, 360 - 290 * y / top) for x, y in curves[name]]
        draw_curve(drawing, points, colour, dash)
        drawing.text(WIDTH - 180, 100 + 24 * place, name, fill=colour)
    return drawing


def draw_curve(drawing, points, colour, dash):
    for (x1, y1), (x2, y2) in zip(points, points[1:]):
        drawing.line(x1, y1, x2, y2, colour, 2, dash)
    for x, y in points:
        drawing.dot(x, y, colour)


def draw_key(drawing, y, colour, row):
    x = WIDTH - 280
    drawing.text(x, y, row["work"])
    for name, dash, exponent, below in (("runeld", "", row["subject"][0], 18),
                                        ("floor", "5 4", row["floor"][0], 36)):
        drawing.line(x, y + below - 4, x + 34, y + below - 4, colour, 2, dash)
        drawing.text(x + 42, y + below, f"{name}, exponent {exponent:.2f}")


def main():
    figures = json.loads(Path(sys.argv[1]).read_text(encoding="utf-8"))
    beside = Path(__file__).resolve().parent.parent / "docs" / "reports" / "performance"
    directory = Path(sys.argv[2]) if len(sys.argv) > 2 else beside
    directory.mkdir(parents=True, exist_ok=True)
    draw_ratios(figures["rows"]).save(directory / "ratios.svg")
    draw_growth(figures["rows"]).save(directory / "growth.svg")
    draw_connections(figures["rows"]).save(directory / "connections.svg")


if __name__ == "__main__":
    main()
