#!/usr/bin/env python3
"""Measures the library and says how it compares.

  run.py stream BUILD ROUNDS     inside the virtual machine: throughput and processor time with
                                 shared and private rings of several shapes, against bare libusb
                                 loops and a ring written by hand; its last line is for chart.py
  run.py events BUILD ROUNDS     inside the virtual machine: the event pipe against a bare libusb
                                 loop that calls a function directly
  run.py loaders BUILD ROUNDS    inside the virtual machine: whole loads against dfu-util and imx_usb
  run.py hex BUILD ROUNDS        whole conversions of Intel HEX against srec_cat and objcopy
  run.py instructions BUILD      under callgrind: instructions and allocations per transfer,
                                 per event, and per change of the device list

Exit status 1 when a figure misses its target.
"""
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(__file__))
import callgrind_cost

STREAM_BYTES = 256 << 20
# Buffer size and count; the fourth is the command's default, the third that of README's example.
SHAPES = ((65536, 256), (524288, 32), (1048576, 16), (1048576, 32), (4194304, 4), (1000000, 16))
UNSET = {name: value for name, value in os.environ.items() if name != "VEXA_USB_RING"}
# Each way of streaming: the benchmark's mode, and settings in the environment.
WAYS = {
    "bare loop": ("bare",),
    "bare loop, shared": ("bare-shared",),
    "ring by hand": ("hand",),
    "library, private ring": ("library", ("VEXA_USB_RING", "private")),
    "library, shared ring": ("library",),
}
missed = False


def show(what, value, target=None, at_least=False):
    global missed
    verdict = ""
    if target is not None:
        good = value >= target if at_least else value <= target
        missed = missed or not good
        verdict = f"  (target: {'at least' if at_least else 'at most'} {target}: " \
                  f"{'met' if good else 'MISSED'})"
    print(f"{what:<58} {value:10.3f}{verdict}")


def vendor(build):
    return re.search(r"VENDOR_ID 0x(\w+)", open(f"{build}/include/vexa_usb_config.h").read())[1]


class Simulator:
    """The simulator with its devices plugged in."""

    def __init__(self, build, *devices):
        self.output = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([f"{build}/vexa-usb-sim", "--attach", *devices],
                                        stdout=self.output, stderr=subprocess.DEVNULL)
        for _ in range(300):
            found = subprocess.run(["lsusb"], capture_output=True, text=True).stdout.splitlines()
            if any("ID 1d6b:" not in line for line in found):  # more than root hubs
                break
            time.sleep(0.05)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def load_time(self):
        """The seconds from a bare device's first request to its firmware's start."""
        for _ in range(100):
            self.output.seek(0)
            found = re.search(r"firmware, ([\d.]+) s", self.output.read())
            if found:
                return float(found[1])
            time.sleep(0.05)
        raise SystemExit("the firmware was not started")


def stream_once(build, way, shape):
    """Seconds, processor seconds and, of the library, the start's seconds."""
    mode, *setting = WAYS[way]
    output = subprocess.run([f"{build}/bench/stream-bench", mode, *map(str, shape),
                             str(STREAM_BYTES)], check=True, capture_output=True, text=True,
                            env={**UNSET, **dict(setting)}).stdout
    return [float(word) for word in output.split()]


def require_shared(build, shape):
    """Ends the measurement unless the whole ring may be shared."""
    said = subprocess.run([f"{build}/bench/stream-bench", "library", *map(str, shape), "1"],
                          check=True, capture_output=True, text=True,
                          env={**UNSET, "VEXA_USB_LOG": "info"}).stderr
    if f"may fill {shape[1]} of the ring's {shape[1]} " not in said:
        raise SystemExit(f"the ring is not shared:\n{said}")


def stream(build, rounds):
    limit_transfers(256)
    runs = {(shape, way): [] for shape in SHAPES for way in WAYS}
    with Simulator(build, "instrument,speed=super"):
        for shape in SHAPES:
            require_shared(build, shape)
        for turn in range(rounds + 1):
            for shape, way in runs:
                result = stream_once(build, way, shape)
                if turn > 0:  # the first warms up
                    runs[shape, way].append(result)
    print(f"Stream of {STREAM_BYTES >> 20} MiB, every byte read, medians of {rounds} rounds in turns,"
          f" load average {os.getloadavg()[0]:.1f} in the machine:")
    table = {}
    for (shape, way), results in runs.items():
        median = [statistics.median(column) for column in zip(*results)]
        table[shape, way] = {"rate": STREAM_BYTES / 1e6 / median[0],
                             "processor": median[1] * (1 << 30) / STREAM_BYTES,
                             "start": median[2] if len(median) > 2 else 0}
    for shape in SHAPES:
        name = f"{shape[0]} x {shape[1]}"
        for way in WAYS:
            one = table[shape, way]
            print(f"  {name:<14} {way:<22} {one['rate']:7.1f} MB/s {one['processor']:7.2f} s/GiB"
                  f" {one['start'] * 1e3:7.1f} ms to start")
        compare(name, shape[0], {way: table[shape, way] for way in WAYS})
    print("chart: " + json.dumps([[*shape, way, one["rate"], one["processor"]]
                                  for (shape, way), one in table.items()]))


def compare(name, size, of):
    """Says how the ways compare at one shape."""
    def ratio(figure, one, other):
        return of[one][figure] / of[other][figure]
    bare = "bare loop"
    limit = "bare loop, shared"
    hand = "ring by hand"
    shared = "library, shared ring"
    private = "library, private ring"
    show(f"  {name}: processor time, shared / bare", ratio("processor", shared, bare),
         0.35 if size >= 524288 else None)
    show(f"  {name}: processor time, shared / bare shared", ratio("processor", shared, limit),
         1.3 if size >= 1048576 else None)
    show(f"  {name}: throughput, shared / bare", ratio("rate", shared, bare), 1.0, True)
    show(f"  {name}: processor time, private / by hand", ratio("processor", private, hand), 1.05)
    show(f"  {name}: throughput, private / by hand", ratio("rate", private, hand), 0.97, True)
    show(f"  {name}: time of the start, shared / private", ratio("start", shared, private),
         2 if name == "1048576 x 32" else None)


def limit_transfers(mebibytes):
    with open("/sys/module/usbcore/parameters/usbfs_memory_mb", "w") as file:
        file.write(str(mebibytes))


def profile(build, program, *arguments):
    """The library's cost under callgrind, with the stand-in in libusb's place."""
    with tempfile.NamedTemporaryFile() as output:
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={output.name}",
                        "--quiet", f"{build}/bench/{program}", *map(str, arguments)], check=True,
                       env={**os.environ, "LD_LIBRARY_PATH": f"{build}/bench"},
                       stderr=subprocess.DEVNULL)
        return callgrind_cost.cost(output.name, "libvexa-usb", ("libusb-1.0", "/bench/" + program))


def per_unit(build, few, many, program, *arguments):
    """Cost of one more unit of work in the steady state."""
    low, high = (profile(build, program, *arguments, count) for count in (few, many))
    return {key: (high[key] - low[key]) / (many - few) for key in low}


def instructions(build):
    cost = per_unit(build, 800, 8800, "completions")
    print("Stream against the libusb stand-in, per completed transfer (each fills a buffer):")
    show("  instructions in the library", cost["own"])
    show("  instructions elsewhere on its behalf", cost["behalf"])
    show("  instructions, both", cost["own"] + cost["behalf"], 1500)
    show("  allocations", cost["allocations"], 0.1)
    cost = per_unit(build, 100, 1100, "callbacks", "events")
    print("Event pipe against the stand-in, per event byte (packets of 64):")
    show("  instructions in the library", cost["own"] / 64)
    show("  instructions, with what is done on its behalf", (cost["own"] + cost["behalf"]) / 64, 600)
    print("One plug and unplug, instructions with what is done on the library's behalf:")
    changes = {}
    for entries in (1, 10, 100):
        cost = per_unit(build, 50, 550, "callbacks", "list", entries)
        changes[entries] = cost["own"] + cost["behalf"]
        show(f"  with {entries} listed", changes[entries])
    show("  with 100 / with 1", changes[100] / changes[1], 2)


def events(build, rounds):
    figures = {"bare": [], "library": []}
    with Simulator(build, "instrument,speed=high"):
        for _ in range(rounds):
            for way, results in figures.items():
                output = subprocess.run([f"{build}/bench/events-bench", way], check=True,
                                        capture_output=True, text=True).stdout
                results.append([float(word) for word in output.split()])
    median = {way: [statistics.median(column) for column in zip(*results)]
              for way, results in figures.items()}
    print(f"Events in packets of 64, medians of {rounds} rounds in turns:")
    for way, (rate, middle, late) in median.items():
        show(f"  {way}: events/s", rate)
        show(f"  {way}: microseconds from answer to callback, median", middle)
        show(f"  {way}: the same, 99th percentile", late)
    show("  events/s, library / bare", median["library"][0] / median["bare"][0], 0.8, True)


def timed(command):
    begin = time.monotonic()
    result = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.monotonic() - begin, result.returncode


def medians(times):
    return {name: statistics.median(values) for name, values in times.items()}


def load_in_turns(build, device, rounds, commands):
    """Compares the first of the commands with the other: the load as the device sees it, from its
    first request to the start of its firmware; and, for information, whole processes, which start up
    and end, too."""
    processes = {name: [] for name in commands}
    loads = {name: [] for name in commands}
    for _ in range(rounds):
        for name, command in commands.items():
            with Simulator(build, device) as simulator:
                processes[name].append(timed(command)[0])
                loads[name].append(simulator.load_time())
    (ours, theirs), process, load = commands, medians(processes), medians(loads)
    for name in commands:
        show(f"  {name}: seconds of the load", load[name])
        show(f"  {name}: seconds of the process", process[name])
    show(f"  load, {ours} / {theirs}", load[ours] / load[theirs], 1.0)
    show(f"  process, {ours} / {theirs}", process[ours] / process[theirs])


def installed_command(build):
    """The command as it is once installed, known to the dynamic linker like the others' libraries;
    what that changes of the system is in the virtual machine's memory."""
    if "VEXA_IN_VM" not in os.environ:
        raise SystemExit("to be run by scripts/vm: it installs the command")
    prefix, cache = "/run/vexa-usb", "/run/ld.so.cache"
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/var/cache/ldconfig"], check=True)
    subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True,
                   stdout=subprocess.DEVNULL)
    subprocess.run(["ldconfig", "-X", "-C", cache, f"{prefix}/lib"], check=True)
    subprocess.run(["mount", "--bind", cache, "/etc/ld.so.cache"], check=True)
    command = f"{prefix}/bin/vexa-usb"
    subprocess.run([command, "--version"], check=True, stdout=subprocess.DEVNULL)
    return command


def loaders(build, rounds):
    tool = installed_command(build)
    with tempfile.TemporaryDirectory() as directory:
        image = f"{directory}/image"
        with open(image, "wb") as file:
            file.write(os.urandom(2 << 20))
        device = f"{vendor(build)}:0df0"
        print(f"DFU download of 2 MiB, medians of {rounds} rounds in turns:")
        load_in_turns(build, "dfu,linger=1500", rounds, {
            "vexa-usb": [tool, "load", "dfu", "--wait", "0", device, image],
            "dfu-util": ["dfu-util", "-d", device, "-D", image],
        })
        subprocess.run([f"{os.path.dirname(__file__)}/../tests/system/imx7_image.py", image,
                        str(400 << 10)], check=True)
        print(f"i.MX7 load of 400 KiB, medians of {rounds} rounds in turns:")
        load_in_turns(build, "imx7", rounds, {
            "vexa-usb": [tool, "load", "spl", "--wait", "0", "15a2:0076", image],
            "imx_usb": ["imx_usb", image],
        })


def hex_text(size):
    """Intel HEX of ascending addresses, in lines of 16 bytes."""
    lines = []
    length = address = 0
    while length < size:
        if address % 0x10000 == 0:
            base = address >> 16
            lines.append(f":02000004{base:04X}{-(6 + (base >> 8) + base) & 0xFF:02X}")
        data = os.urandom(16)
        record = bytes([16, address >> 8 & 0xFF, address & 0xFF, 0]) + data
        lines.append(f":{record.hex().upper()}{-sum(record) & 0xFF:02X}")
        length += len(lines[-1]) + 1
        address += 16
    return "\n".join(lines + [":00000001FF", ""])


def hexes(build, rounds):
    # In memory, so that no disk is measured.
    with tempfile.TemporaryDirectory(dir="/dev/shm") as directory:
        source, image = f"{directory}/source", f"{directory}/image"
        text = hex_text(32 << 20)
        with open(source, "w") as file:
            file.write(text)
        commands = {
            "vexa-usb": [f"{build}/vexa-usb", "hex", source, "--image", f"{image}1"],
            "objcopy": ["objcopy", "-I", "ihex", "-O", "binary", source, f"{image}2"],
            "srec_cat": ["srec_cat", source, "-intel", "-o", f"{image}3", "-binary"],
        }
        times = {name: [] for name in commands}
        for _ in range(rounds):
            for name, command in commands.items():
                seconds, status = timed(command)
                if status != 0:
                    raise SystemExit(f"{name} failed with {status}")
                times[name].append(seconds)
        median = medians(times)
        contents = {open(f"{image}{number}", "rb").read() for number in (1, 2, 3)}
        if len(contents) != 1:
            raise SystemExit("the images differ")
    print(f"Intel HEX of 32 MiB to a flat image, whole process, medians of {rounds} rounds in turns:")
    for name, seconds in median.items():
        show(f"  {name}: MB/s", len(text) / 1e6 / seconds)
    show("  vexa-usb / srec_cat", median["srec_cat"] / median["vexa-usb"], 10, True)
    show("  vexa-usb / objcopy", median["objcopy"] / median["vexa-usb"], 1, True)


if __name__ == "__main__":
    measurements = {"stream": stream, "events": events, "loaders": loaders, "hex": hexes,
                    "instructions": instructions}
    measurements[sys.argv[1]](sys.argv[2], *map(int, sys.argv[3:]))
    sys.exit(1 if missed else 0)
