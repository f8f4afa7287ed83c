#!/usr/bin/python3
"""Throughput of a Python stream against the same stream in C, in turns, inside the virtual machine:

  scripts/vm -t 1500 bench/python_stream.py BUILD [ROUNDS [BYTES]]

Every byte is looked at in two ways: copied, which both languages have done by the same function, and
added up, by numpy and by a loop of the bench.  The first tells what the package costs; the second
also tells numpy from the loop.

Exit status 1 when the Python stream with the same work is slower than the target allows.
"""
import os
import statistics
import subprocess
import sys
import time

BUFFER_SIZE, BUFFER_COUNT, TARGET = 1 << 20, 16, 0.95


def read_stream(wanted, copies):
    """The seconds from the start to the end of the stream."""
    import numpy
    import vexa_usb
    total = 0
    room = memoryview(bytearray(BUFFER_SIZE))
    with vexa_usb.Library() as library, library.open() as device:
        begun = time.monotonic()
        with device.stream(0x82, BUFFER_SIZE, BUFFER_COUNT) as stream:
            for view in stream:
                if copies:
                    room[:] = view
                else:
                    total += int(numpy.frombuffer(view, dtype=numpy.uint64).sum())
                wanted -= len(view)
                if wanted <= 0:
                    break
        return time.monotonic() - begun


def seconds(command, environment):
    output = subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE,
                            env={**os.environ, **environment}).stdout
    return float(output.split()[0])


def measure(build, rounds, wanted):
    """The rates of all ways in MB/s."""
    from run import Simulator
    strict = {"VEXA_USB_STREAM": "strict"}
    library = [f"{build}/bench/stream-bench", "library", str(BUFFER_SIZE), str(BUFFER_COUNT),
               str(wanted)]
    package = {"PYTHONPATH": f"{build}/python"}
    read = [sys.executable, __file__, "--read", str(wanted)]
    ways = {
        ("copied", "C"): ([*library, "copy"], strict),
        ("copied", "Python"): ([*read, "copy"], package),
        ("added up", "C"): (library, strict),
        ("added up", "Python"): (read, package),
    }
    times = {way: [] for way in ways}
    with Simulator(build, "instrument,speed=super"):
        for _ in range(rounds + 1):
            for way, command in ways.items():
                times[way].append(seconds(*command))
    # The first round warms up.
    return {way: wanted / 1e6 / statistics.median(taken[1:]) for way, taken in times.items()}


def main(build, rounds=5, wanted=1 << 30):
    print(f"Stream of {wanted >> 20} MiB in buffers of 1 MiB, medians of {rounds} rounds in turns:")
    rates = measure(build, rounds, wanted)
    ratios = {}
    for work in ("copied", "added up"):
        ratios[work] = rates[work, "Python"] / rates[work, "C"]
        print(f"  {work}: C {rates[work, 'C']:.1f} MB/s, Python {rates[work, 'Python']:.1f}, "
              f"Python / C {ratios[work]:.3f}")
    print(f"  target: at least {TARGET}, {'met' if ratios['copied'] >= TARGET else 'MISSED'}")
    return ratios["copied"] < TARGET


if sys.argv[1] == "--read":
    print(read_stream(int(sys.argv[2]), "copy" in sys.argv))
else:
    sys.exit(main(sys.argv[1], *map(int, sys.argv[2:])))
