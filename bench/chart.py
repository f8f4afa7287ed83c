#!/usr/bin/python3
"""Draws what `run.py stream` measured: chart.py OUTPUT-OF-RUN PICTURE.svg TABLE.md"""
import json
import re
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "vexa-usb"  # the same figures give the same file
from matplotlib import pyplot

COLOURS = ("#9e9e9e", "#cfcfcf", "#c98f4e", "#6f9fd8", "#1f5fa8")
PANELS = ((3, "throughput, MB/s (more is better)"),
          (4, "processor time, seconds a GiB (less is better)"))


def size_name(size):
    for unit, name in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if size % unit == 0:
            return f"{size // unit} {name}"
    return f"{size:,} B"


def shape_name(row):
    return f"{row[1]} x {size_name(row[0])}"


def draw(rows, picture):
    shapes = list(dict.fromkeys(map(shape_name, rows)))
    ways = list(dict.fromkeys(row[2] for row in rows))
    figure, panels = pyplot.subplots(2, 1, figsize=(9, 7), sharex=True)
    for panel, (column, title) in zip(panels, PANELS):
        for place, (way, colour) in enumerate(zip(ways, COLOURS)):
            values = [row[column] for row in rows if row[2] == way]
            panel.bar([x + (place - 2) * 0.16 for x in range(len(shapes))], values, 0.15,
                      label=way, color=colour)
        panel.set_title(title, fontsize=10)
        panel.grid(axis="y", alpha=0.3)
        panel.set_axisbelow(True)
    panels[1].set_xticks(range(len(shapes)), shapes)
    panels[1].set_xlabel("the ring: buffers x size")
    figure.legend(*panels[0].get_legend_handles_labels(), loc="lower center", ncols=5, fontsize=8)
    figure.tight_layout(rect=(0, 0.04, 1, 1))
    figure.savefig(picture, metadata={"Date": None})


def tabulate(rows, table):
    ways = list(dict.fromkeys(row[2] for row in rows))
    with open(table, "w") as file:
        print("| Ring |", *(f"{way} |" for way in ways), file=file)
        print("| --- |", *("--- |" for _ in ways), file=file)
        for shape in dict.fromkeys(map(shape_name, rows)):
            cells = [f"{row[3]:.0f} MB/s, {row[4]:.2f} s |" for row in rows
                     if shape_name(row) == shape]
            print(f"| {shape} |", *cells, file=file)


output, picture, table = sys.argv[1:]
rows = json.loads(re.findall(r"(?m)^chart: (.*)$", open(output).read())[-1])
draw(rows, picture)
tabulate(rows, table)
