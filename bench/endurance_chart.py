#!/usr/bin/python3
"""Draws the log of endurance.py: endurance_chart.py LOG PICTURE.svg"""
import json
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "vexa-usb"  # the same figures give the same file
from matplotlib import pyplot

SMOOTHED = 10  # samples, which come once a second
POINTS = 500   # the most that are drawn of a line

log, picture = sys.argv[1:]
samples = [one for one in map(json.loads, open(log)) if "after_closing" not in one]
thin = slice(None, None, len(samples) // POINTS + 1)
minutes = [one["seconds"] / 60 for one in samples]
rate = [(later["bytes"] - one["bytes"]) / (later["seconds"] - one["seconds"]) / 1e6
        for one, later in zip(samples, samples[SMOOTHED:])]
figure, panels = pyplot.subplots(3, 1, figsize=(9, 7), sharex=True)
panels[0].plot(minutes[thin], [one["resident_kib"] / 1024 for one in samples[thin]],
               label="memory, MiB")
for name in ("threads", "descriptors"):
    panels[0].plot(minutes[thin], [one[name] for one in samples[thin]], label=name)
panels[1].plot(minutes[SMOOTHED:][thin], rate[thin], label="verified bytes, MB/s")
for index, name in enumerate(("median", "99 %")):
    points = [(one["seconds"] / 60, one["latency_ms"][index]) for one in samples[thin]
              if one["latency_ms"][index] is not None]
    panels[2].plot(*zip(*points), ".", markersize=3, label=f"event, {name}, ms")
for panel in panels:
    panel.set_ylim(bottom=0)
    panel.grid(alpha=0.3)
    panel.legend(loc="upper right", fontsize=8)
panels[2].set_xlabel("minutes")
figure.tight_layout()
figure.savefig(picture, metadata={"Date": None})
