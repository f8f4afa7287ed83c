#!/usr/bin/python3
"""Throughput of a Python stream against the same stream in C, in turns, inside the virtual machine:

  scripts/vm -t 1500 bench/python_stream.py BUILD [ROUNDS [BYTES]]

First with the simulator on a processor of its own, since a device takes none of its host's; then
wherever the scheduler puts it.  There a switch between processes empties the emulation's caches of
translated code, of which Python has much more than C.

Exit status 1 when the Python stream is slower than the target allows, beside a simulator that takes
none of its time.
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


def seconds(processors, command, environment):
    output = subprocess.run(["taskset", "-c", processors, *command], check=True, text=True, stdout=subprocess.PIPE,
                            env={**os.environ, **environment}).stdout
    return float(output.split()[0])


def measure(build, rounds, wanted, apart):
    """The rates of both ways in MB/s."""
    from run import Simulator
    ways = {
        "C": ([f"{build}/bench/stream-bench", "library", str(BUFFER_SIZE),
               str(BUFFER_COUNT), str(wanted)], {"VEXA_USB_STREAM": "strict"}),
        "Python": ([sys.executable, __file__, "--read", str(wanted)],
                   {"PYTHONPATH": f"{build}/python"}),
    }
    times = {way: [] for way in ways}
    with Simulator(build, "instrument,speed=super") as simulator:
        if apart:
            os.sched_setaffinity(simulator.process.pid, {0})
        for _ in range(rounds + 1):
            for way, command in ways.items():
                times[way].append(seconds("1" if apart else "0,1", *command))
    # The first round warms up.
    return {way: wanted / 1e6 / statistics.median(taken[1:]) for way, taken in times.items()}


def main(build, rounds=5, wanted=1 << 30):
    print(f"Stream of {wanted >> 20} MiB in buffers of 1 MiB, medians of {rounds} rounds in turns:")
    ratios = []
    for apart, where in ((True, "apart from the simulator"), (False, "wherever it runs")):
        rates = measure(build, rounds, wanted, apart)
        ratios.append(rates["Python"] / rates["C"])
        print(f"  {where}: C {rates['C']:.1f} MB/s, Python {rates['Python']:.1f}, "
              f"Python / C {ratios[-1]:.3f}", flush=True)
    print(f"  target: at least {TARGET}, {'met' if ratios[0] >= TARGET else 'MISSED'}")
    return ratios[0] < TARGET


if sys.argv[1] == "--read":
    print(read_stream(int(sys.argv[2])))
else:
    sys.exit(main(sys.argv[1], *map(int, sys.argv[2:])))
