#!/usr/bin/env python3
"""Draws one SVG per Google Benchmark JSON file: each benchmark's wall and CPU
time per iteration as bars on a logarithmic scale, the baselines of the family
in grey beside the measured operations. Python's standard library only.

usage: bench-svg.py JSON_DIR [OUT_DIR]   (OUT_DIR defaults to JSON_DIR)
"""
import json
import math
import os
import re
import sys
from xml.sax.saxutils import escape

# The names of the baselines each program measures beside its operations.
BASELINE = re.compile(r"memcpy|copyText|scanDocument|transportOnly|engineOnly|rawPost|"
                      r"redisPing|xmlLibraryStartStop")
NS_PER_UNIT = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
ROW, LABEL_WIDTH, BAR_WIDTH, VALUE_WIDTH = 26, 330, 420, 190


def readable(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.3g} {unit}"
    return f"{ns:.3g} ns"


def rows_of(path):
    with open(path, encoding="utf-8") as file:
        report = json.load(file)
    rows = []
    for bench in report.get("benchmarks", []):
        if bench.get("run_type") == "aggregate" or bench.get("error_occurred"):
            continue
        scale = NS_PER_UNIT.get(bench.get("time_unit", "ns"), 1.0)
        rows.append((bench["name"], bench["real_time"] * scale, bench["cpu_time"] * scale))
    return rows


def svg_of(title, rows):
    low = min(min(wall, cpu) for _, wall, cpu in rows)
    high = max(max(wall, cpu) for _, wall, cpu in rows)
    start = 10 ** math.floor(math.log10(max(low, 1e-3)))
    decades = max(1, math.ceil(math.log10(high / start)))

    def x(ns):
        return LABEL_WIDTH + BAR_WIDTH * math.log10(max(ns, start) / start) / decades

    width = LABEL_WIDTH + BAR_WIDTH + VALUE_WIDTH
    height = 60 + ROW * len(rows) + 30
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="10" y="20" font-size="15" font-weight="bold">{escape(title)}</text>',
           '<text x="10" y="40" fill="#444">time per iteration, logarithmic; darker: wall, '
           'lighter: CPU; grey: baselines</text>']
    for decade in range(decades + 1):
        ns = start * 10 ** decade
        gx = x(ns)
        out.append(f'<line x1="{gx:.1f}" y1="50" x2="{gx:.1f}" y2="{height - 25}" '
                   'stroke="#ddd"/>')
        out.append(f'<text x="{gx:.1f}" y="{height - 10}" text-anchor="middle" '
                   f'fill="#666">{readable(ns)}</text>')
    for index, (name, wall, cpu) in enumerate(rows):
        y = 55 + ROW * index
        dark, light = ("#777", "#bbb") if BASELINE.search(name) else ("#1f5fa8", "#8db6e6")
        out.append(f'<text x="{LABEL_WIDTH - 8}" y="{y + 15}" text-anchor="end">'
                   f'{escape(name)}</text>')
        out.append(f'<rect x="{LABEL_WIDTH}" y="{y + 2}" width="{x(wall) - LABEL_WIDTH:.1f}" '
                   f'height="10" fill="{dark}"/>')
        out.append(f'<rect x="{LABEL_WIDTH}" y="{y + 12}" width="{x(cpu) - LABEL_WIDTH:.1f}" '
                   f'height="8" fill="{light}"/>')
        out.append(f'<text x="{LABEL_WIDTH + BAR_WIDTH + 8}" y="{y + 15}" fill="#333">'
                   f'{readable(wall)} / {readable(cpu)}</text>')
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    source = sys.argv[1]
    target = sys.argv[2] if len(sys.argv) == 3 else source
    os.makedirs(target, exist_ok=True)
    for entry in sorted(os.listdir(source)):
        if not entry.endswith(".json"):
            continue
        rows = rows_of(os.path.join(source, entry))
        if not rows:
            continue
        family = entry[:-len(".json")]
        picture = os.path.join(target, family + ".svg")
        with open(picture, "w", encoding="utf-8") as file:
            file.write(svg_of(f"{family}: each operation beside its baseline", rows))
        print(f"bench-svg: {picture}")


if __name__ == "__main__":
    main()
