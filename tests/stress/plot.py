#!/usr/bin/env python3
"""Plots the samples of a soak test: memory, threads, descriptors and operations over time.

    plot.py SAMPLES.csv PLOT.svg
"""

import csv
import sys

WIDTH, HEIGHT, LEFT, RIGHT, TOP, GAP = 720, 110, 70, 20, 36, 34
FIGURES = [
    ("allocated memory, MiB", lambda row: float(row["allocated"]) / 1024),
    ("resident memory, MiB", lambda row: float(row["resident"]) / 1024),
    ("threads", lambda row: float(row["threads"])),
    ("descriptors", lambda row: float(row["descriptors"])),
    ("completed operations, thousands", lambda row: float(row["operations"]) / 1000),
]


def round_up(value):
    """The smallest of 0.01, 0.02, 0.05, 0.1, 0.2, … that is at least `value`."""
    step = 0.01
    while True:
        for factor in (1, 2, 5):
            if factor * step >= value:
                return factor * step
        step *= 10


def panel(name, points, seconds, top):
    highest = round_up(max(y for _, y in points))
    right = WIDTH - RIGHT

    def place(x, y):
        return f"{LEFT + x / seconds * (right - LEFT):.1f},{top + HEIGHT - y / highest * HEIGHT:.1f}"

    parts = [f'<text x="{LEFT}" y="{top - 6}" class="name">{name}</text>']
    for share in (0, 0.5, 1):
        y = top + HEIGHT - share * HEIGHT
        parts.append(f'<line x1="{LEFT}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}" class="grid"/>')
        parts.append(f'<text x="{LEFT - 6}" y="{y + 4:.1f}" class="scale" text-anchor="end">{highest * share:g}</text>')
    parts.append(f'<polyline points="{" ".join(place(x, y) for x, y in points)}" class="line"/>')
    return parts


def main():
    samples, plot = sys.argv[1:]
    with open(samples, encoding="utf-8") as file:
        rows = list(csv.DictReader(file))
    seconds = max(float(rows[-1]["second"]), 1)
    height = TOP + len(FIGURES) * (HEIGHT + GAP) + 16
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" font-family="sans-serif">',
        "<style>.name{font-size:13px;fill:#222}.scale{font-size:11px;fill:#666}.grid{stroke:#ddd}"
        ".line{fill:none;stroke:#1f5fa8;stroke-width:1.2}</style>",
        f'<rect width="{WIDTH}" height="{height}" fill="#fff"/>',
    ]
    for index, (name, figure) in enumerate(FIGURES):
        points = [(float(row["second"]), figure(row)) for row in rows]
        parts += panel(name, points, seconds, TOP + index * (HEIGHT + GAP))
    bottom = TOP + len(FIGURES) * (HEIGHT + GAP) - GAP + 16
    minutes = seconds / 60
    step = round_up(minutes / 12)
    for mark in range(0, int(minutes / step) + 1):
        x = LEFT + mark * step / minutes * (WIDTH - RIGHT - LEFT)
        label = f"{mark * step:g}"
        parts.append(f'<text x="{x:.1f}" y="{bottom}" class="scale" text-anchor="middle">{label}</text>')
    parts.append(f'<text x="{WIDTH - RIGHT}" y="{bottom + 16}" class="scale" text-anchor="end">minutes</text>')
    parts.append("</svg>")
    with open(plot, "w", encoding="utf-8") as file:
        file.write("\n".join(parts) + "\n")


if __name__ == "__main__":
    main()
