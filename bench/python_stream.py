#!/usr/bin/python3
"""Throughput of a Python stream against the same stream in C, in turns, inside the virtual machine:

  scripts/vm -t 900 bench/python_stream.py BUILD [ROUNDS [BYTES]]

Exit status 1 when the Python stream is slower than the target allows.
"""
import os
import statistics
import subprocess
import sys
import time

BUFFER_SIZE, BUFFER_COUNT, TARGET = 1 << 20, 16, 0.95


def read_stream(wanted):
    """The seconds from the start to the end of the stream, every byte looked at by numpy."""
    import numpy
    import vexa_usb
    total = 0
    with vexa_usb.Library() as library, library.open() as device:
        begun = time.monotonic()
        with device.stream(0x82, BUFFER_SIZE, BUFFER_COUNT) as stream:
            for view in stream:
                total += int(numpy.frombuffer(view, dtype=numpy.uint64).sum())
                wanted -= len(view)
                if wanted <= 0:
                    break
        return time.monotonic() - begun


def seconds(command, environment):
    output = subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE,
                            env={**os.environ, **environment}).stdout
    return float(output.split()[0])


def main(build, rounds=5, wanted=1 << 30):
    from run import Simulator
    ways = {
        "C": ([f"{build}/bench/stream-bench", "library", str(BUFFER_SIZE),
               str(BUFFER_COUNT), str(wanted)], {"VEXA_USB_STREAM": "strict"}),
        "Python": ([sys.executable, __file__, "--read", str(wanted)],
                   {"PYTHONPATH": f"{build}/python"}),
    }
    times = {way: [] for way in ways}
    with Simulator(build, "instrument,speed=super"):
        for _ in range(rounds + 1):
            for way, command in ways.items():
                times[way].append(seconds(*command))
    # The first round warms up.
    rates = {way: wanted / 1e6 / statistics.median(taken[1:]) for way, taken in times.items()}
    ratio = rates["Python"] / rates["C"]
    print(f"Stream of {wanted >> 20} MiB in buffers of 1 MiB, medians of {rounds} rounds in turns:")
    for way, rate in rates.items():
        print(f"  {way}: {rate:.1f} MB/s")
    print(f"  Python / C: {ratio:.3f}  (target: at least {TARGET}: "
          f"{'met' if ratio >= TARGET else 'MISSED'})")
    return ratio < TARGET


if sys.argv[1] == "--read":
    print(read_stream(int(sys.argv[2])))
else:
    sys.exit(main(sys.argv[1], *map(int, sys.argv[2:])))
