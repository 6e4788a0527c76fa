# SPDX-License-Identifier: Apache-2.0
"""Renders the samples of a run as a table and as an SVG."""
import math

WIDTH, HEIGHT, LEFT, TOP, GAP = 860, 120, 90, 40, 46
COLOURS = ("#1f6fb2", "#c4581b", "#3c8c40")

COLUMNS = (
    ("minute", lambda s: f"{s.seconds / 60:.1f}"),
    ("connections", lambda s: f"{s.connections}"),
    ("answers", lambda s: f"{s.answers:,}"),
    ("memory, KiB", lambda s: f"{s.resident // 1024:,}"),
    ("descriptors", lambda s: f"{s.descriptors}"),
    ("zombies", lambda s: f"{s.zombies}"),
    ("passes", lambda s: f"{s.passes:,}"),
    ("pass, median", lambda s: f"{s.median:.3g}"),
    ("99 %", lambda s: f"{s.most:.3g}"),
    ("longest", lambda s: f"{s.worst:.1f}"),
    ("processor", lambda s: f"{100 * s.busy:.0f} %"),
)


def table(samples, rows=24):
    """Markdown table of at most @p rows samples. Pass times in ms; median and 99 % are bounds."""
    step = max(1, math.ceil(len(samples) / rows))
    chosen = samples[::step]
    lines = ["| " + " | ".join(name for name, _ in COLUMNS) + " |", "|---:" * len(COLUMNS) + "|"]
    lines += ["| " + " | ".join(show(sample) for _, show in COLUMNS) + " |" for sample in chosen]
    return "\n".join(lines) + "\n"


def rates(samples):
    """Answers per second between consecutive samples."""
    pairs = zip([samples[0], *samples], samples)
    return [(new.answers - old.answers) / max(new.seconds - old.seconds, 1e-3) for old, new in pairs]


class Chart:
    """One chart of the picture: lines over time on one scale."""

    def __init__(self, title, lines, logarithmic=False):
        self.title, self.lines, self.logarithmic = title, lines, logarithmic
        highest = max(max(values) for _, values in lines)
        self.high = 10 ** math.ceil(math.log10(highest or 1)) if logarithmic else highest * 1.1 or 1
        self.low = self.high / 1e5 if logarithmic else 0

    def height(self, value):
        if not self.logarithmic:
            return value / self.high
        return max(0.0, math.log(max(value, self.low) / self.low) / math.log(self.high / self.low))

    def scale(self):
        if self.logarithmic:
            return [self.high / 10 ** n for n in range(6)]
        return [self.high / 1.1, self.high / 2.2, 0]

    def draw(self, times, top):
        end = times[-1] or 1
        parts = [f'<text x="{LEFT}" y="{top - 8}" class="t">{self.title}</text>']
        for value in self.scale():
            y = top + HEIGHT * (1 - self.height(value))
            parts.append(f'<path d="M{LEFT} {y:.1f}h{WIDTH}" class="g"/>'
                         f'<text x="{LEFT - 6}" y="{y + 4:.1f}" class="n">{value:,.4g}</text>')
        for number, (name, values) in enumerate(self.lines):
            points = " ".join(f"{LEFT + WIDTH * t / end:.1f},{top + HEIGHT * (1 - self.height(v)):.1f}"
                              for t, v in zip(times, values))
            colour = COLOURS[number]
            parts.append(f'<polyline points="{points}" stroke="{colour}"/>'
                         f'<text x="{LEFT + WIDTH - 110 * (len(self.lines) - number - 1)}" '
                         f'y="{top - 8}" class="n" fill="{colour}">{name}</text>')
        return "\n".join(parts)


def picture(samples):
    """An SVG of the run."""
    def column(name):
        return [getattr(sample, name) for sample in samples]

    charts = (
        Chart("connections and descriptors", [("connections", column("connections")),
                                              ("descriptors", column("descriptors"))]),
        Chart("answers a second", [("answers", rates(samples))]),
        Chart("resident memory, MiB", [("memory", [b / (1 << 20) for b in column("resident")])]),
        Chart("a pass of the loop, ms", [("median", column("median")), ("99 %", column("most")),
                                         ("longest", column("worst"))], logarithmic=True),
        Chart("processor time, %", [("daemon", [100 * v for v in column("busy")]),
                                    ("soak", [100 * v for v in column("harness")])]),
    )
    times = column("seconds")
    height = TOP + len(charts) * (HEIGHT + GAP) + 10
    body = "\n".join(chart.draw(times, TOP + number * (HEIGHT + GAP))
                     for number, chart in enumerate(charts))
    return f'''<svg xmlns="http://www.w3.org/2000/svg" width="{LEFT + WIDTH + 30}" height="{height}"
 font-family="sans-serif" font-size="12">
<style>polyline{{fill:none;stroke-width:1.4}}.g{{stroke:#ddd;fill:none}}.n{{text-anchor:end;font-size:11px}}
.t{{font-weight:bold}}</style>
<rect width="100%" height="100%" fill="#fff"/>
{body}
<text x="{LEFT + WIDTH}" y="{height - 14}" class="n">{times[-1] / 60:.1f} minutes</text>
</svg>
'''
