#!/usr/bin/env python3
"""Measures a device of another machine: inside the virtual machine, behind a link of chosen delay
and loss (scripts/vm-lab), exported by the simulator itself or by the system's usbipd.

  scripts/vm -t 3000 bench/network.py BUILD rates SECONDS    throughput over links, in tables; the
                                                             better of two rounds of each
  scripts/vm -t 1500 bench/network.py BUILD ends             what a broken link looks like, and when
  scripts/vm -t 3000 bench/network.py BUILD defaults         how long a dead link goes unnoticed
                                                             as Linux comes

Exit status 1 when a byte was wrong, an event was missing or an end did not come.
"""
import glob
import os
import re
import socket
import subprocess
import sys
import threading
import time

LAB, SERIAL = "10.77.0.2", "LAB"
CONTROLLER = "/sys/devices/platform/vhci_hcd.0"
HERE = os.path.dirname(os.path.abspath(__file__))
VM_LAB = f"{HERE}/../scripts/vm-lab"
SIZES = ((16384, 512), (65536, 128), (262144, 64), (524288, 32))
NAMES = {False: "vexa-usb-sim --listen", True: "usbipd"}
# What the guide tells to set, so that a dead link is noticed.
SETTINGS = {"tcp_keepalive_time": 5, "tcp_keepalive_intvl": 2, "tcp_keepalive_probes": 3,
            "tcp_retries2": 5}
DEFAULTS = {"tcp_keepalive_time": 7200, "tcp_keepalive_intvl": 75, "tcp_keepalive_probes": 9,
            "tcp_retries2": 15}
wrong = 0


def complain(what):
    global wrong
    wrong += 1
    print(f"WRONG: {what}", flush=True)


def lab(*words):
    subprocess.run([VM_LAB, *map(str, words)], check=True)


def link(round_trip, loss=None):
    lab("link", round_trip, *([loss] if loss else []))


def settings(values):
    for name, value in values.items():
        with open(f"/proc/sys/net/ipv4/{name}", "w") as file:
            file.write(str(value))


def bus_ids():
    """Where devices of the simulator's serial number are."""
    found = subprocess.run(["grep", "-slx", SERIAL, *glob.glob("/sys/bus/usb/devices/*/serial")],
                           stdout=subprocess.PIPE, text=True).stdout
    return {os.path.basename(os.path.dirname(path)) for path in found.split()}


def vhci_port(bus_id):
    with open(f"{CONTROLLER}/status") as status:
        return next(line.split()[1] for line in status if line.split()[-1] == bus_id)


def until(condition, seconds, what):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        found = condition()
        if found:
            return found
        time.sleep(0.02)
    raise SystemExit(f"in {seconds} s there was no {what}")


class Server:
    """A device that lab exports: by the simulator, or by usbipd from the system's USB."""

    def __init__(self, build, usbipd):
        self.build, self.usbipd = build, usbipd
        self.processes, self.local = [], set()
        self.bus_id = "1-1"
        if usbipd:
            self.start(f"{build}/vexa-usb-sim", "--port", "3241",
                       f"instrument,speed=super,serial={SERIAL}")
            time.sleep(2)
            self.bus_id = subprocess.run([VM_LAB, "share", "3241"], check=True, text=True,
                                         stdout=subprocess.PIPE).stdout.strip()
            self.local = {self.bus_id}
        self.serve()

    def start(self, *command):
        self.processes.append(subprocess.Popen([VM_LAB, "run", *command], stdout=subprocess.DEVNULL,
                                               stderr=subprocess.DEVNULL))

    def serve(self):
        if self.usbipd:
            self.start("usbipd")
        else:
            self.start(f"{self.build}/vexa-usb-sim", "--listen", LAB,
                       f"instrument,speed=super,serial={SERIAL}")

    def kill(self):
        """What serves dies."""
        self.processes[-1].kill()
        self.processes.pop().wait()

    def attach(self):
        begin = time.monotonic()
        while subprocess.run(["usbip", "attach", "-r", LAB, "-b", self.bus_id],
                             capture_output=True).returncode != 0:
            time.sleep(0.5)
            if self.usbipd and time.monotonic() - begin > 20:
                print("  (lab has not noticed in 20 s that nobody uses the device any more, and "
                      "refuses another attach; it is bound anew there)", flush=True)
                self.bind(False)
                self.bind(True)
                begin += 100
            elif time.monotonic() - begin > 60:
                raise SystemExit("in 60 s there was no success of usbip attach")
        self.port = vhci_port(until(lambda: bus_ids() - self.local, 20, "device from lab").pop())
        time.sleep(1)  # udev has made its node

    def bind(self, bound):
        """To usbip-host, or away from it."""
        with open(f"/sys/bus/usb/drivers/usbip-host/{'bind' if bound else 'unbind'}", "w") as file:
            file.write(self.bus_id)

    def detach(self):
        """By the kernel's file, and without a look at the device's others: who reads those, as
        'usbip detach' does, waits until the device's call has ended."""
        with open(f"{CONTROLLER}/status") as status:
            taken = any(line.split()[1] == self.port and line.split()[-1] != "0-0"
                        for line in status)
        if taken:
            with open(f"{CONTROLLER}/detach", "w") as file:
                file.write(str(int(self.port)))
        until(lambda: not bus_ids() - self.local, 30, "end of the device from lab")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.terminate()
            process.wait()
        until(lambda: not bus_ids(), 30, "end of all devices")
        time.sleep(1)


class Reader:
    """A program that streams with the library, and what it says, with the time since its start."""

    def __init__(self, build, size, count, seconds, event_rate):
        self.lines = []
        self.process = subprocess.Popen(
            [f"{build}/bench/remote-bench", *map(str, (size, count, seconds, event_rate))],
            stdout=subprocess.PIPE, text=True)
        self.thread = threading.Thread(target=self.listen)
        self.thread.start()
        until(lambda: self.first("event 257"), 20, "start of the stream")

    def listen(self):
        for line in self.process.stdout:
            moment, what = line.rstrip("\n").split(" ", 1)
            self.lines.append((float(moment), what))

    def first(self, what):
        return next((moment for moment, said in self.lines if said.startswith(what)), None)

    def wait(self, seconds):
        """Until it ends by itself; False when it does not."""
        try:
            self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            return False
        self.thread.join()
        if self.process.returncode != 0:
            complain(f"the reader said: {self.lines}")
        return True

    def result(self):
        words = next(said for _, said in self.lines if said.startswith("bytes ")).split()
        figures = {name: float(value) for name, value in zip(words[::2], words[1::2])}
        if not figures["asked"] <= figures["events"] <= figures["asked"] + figures["unsure"]:
            complain(f"events were lost: {figures}")
        return figures

    def since(self, begin, what):
        moment = self.first(what)
        return None if moment is None else moment - begin

    def calls(self):
        """What failed control transfers answered, and the longest time that one took."""
        found = [said.split() for _, said in self.lines if said.startswith("control ")]
        return (sorted({int(words[1]) for words in found}),
                max((float(words[2]) for words in found), default=0))

    def took(self, call):
        said = next((said for _, said in self.lines if said.startswith(call + " ")), None)
        if not said:
            return f"no {call}"
        _, status, seconds = said.split()
        return f"{call} {status} after {float(seconds):.1f} s"


def check_round_trip(milliseconds):
    said = subprocess.run(["busybox", "ping", "-c", "10", LAB], capture_output=True,
                          text=True).stdout
    shortest = float(re.search(r"= ([\d.]+)/", said)[1])
    if shortest < milliseconds:
        complain(f"a round trip of {shortest} ms in place of {milliseconds}")


def plain_tcp(seconds):
    """What one TCP connection carries from lab to here, in MB/s."""
    sender = ("import socket\ns = socket.create_server(('', 5000))\nc = s.accept()[0]\n"
              "try:\n  while True: c.sendall(bytes(1 << 20))\nexcept OSError: pass")
    process = subprocess.Popen([VM_LAB, "run", "python3", "-c", sender])

    def connect():
        try:
            return socket.create_connection((LAB, 5000), 5)
        except OSError:
            return None
    with until(connect, 20, "connection") as connection:
        begin, total = time.monotonic(), 0
        while time.monotonic() - begin < seconds:
            total += len(connection.recv(1 << 20))
        rate = total / 1e6 / (time.monotonic() - begin)
    process.wait()
    return rate


def measure(server, size, count, seconds):
    reader = Reader(server.build, size, count, seconds, 5)
    if not reader.wait(seconds + 60):
        raise SystemExit(f"the reader did not end: {reader.lines}")
    if reader.first("event 5") or reader.first("event 256"):
        complain(f"the stream ended: {reader.lines}")
    figures = reader.result()
    return figures["bytes"] / 1e6 / figures["seconds"], figures["bytes"]


def rates(build, seconds):
    checked = 0
    for usbipd in (False, True):
        print(f"\nExported by {NAMES[usbipd]}; the better of twice {seconds} s, load average "
              f"{os.getloadavg()[0]:.1f} in the machine; MB/s, and the limit that follows from the "
              f"round trip:\n")
        shapes = " | ".join(f"{count} x {size >> 10} KiB" for size, count in SIZES)
        print(f"| Round trip | Loss | {shapes} | plain TCP |")
        print("| --- " * (len(SIZES) + 3) + "|")
        with Server(build, usbipd) as server:
            for delay, loss in ((0, None), (1, None), (10, None), (50, None), (10, "1%")):
                link(delay)
                check_round_trip(delay)
                server.attach()
                link(delay, loss)
                cells = []
                for size, count in SIZES:
                    runs = [measure(server, size, count, seconds) for _ in range(2)]
                    rate = max(rate for rate, _ in runs)
                    checked += sum(read for _, read in runs)
                    limit = 3 * min(size, 524288) / 1e3 / delay if delay else None
                    if limit and rate > limit:
                        complain(f"faster than possible: {rate} of {limit}")
                    cells.append(f"{rate:.1f}" + (f" of {limit:.1f}" if limit else ""))
                print(f"| {delay} ms | {loss or 'none'} | " + " | ".join(cells) +
                      f" | {plain_tcp(seconds):.1f} |", flush=True)
                link(0)
                server.detach()
    print(f"\n{checked / 1e9:.2f} GB were looked at, and no byte was wrong.")


def say(what, reader, begin):
    answers, longest = reader.calls()

    def after(event):
        seconds = reader.since(begin, f"event {event}")
        return "none" if seconds is None else f"{seconds:.1f} s"
    print(f"{what}: event 5 after {after(5)}, 256 after {after(256)}; failed control transfers "
          f"answered {answers}, the longest took {longest:.1f} s; {reader.took('stop')}, "
          f"{reader.took('close')}, {reader.took('fini')}", flush=True)


def short_break(server):
    """Nothing arrives for 3 s."""
    for event_rate in (0, 10):
        server.attach()
        reader = Reader(server.build, 524288, 32, 20, event_rate)
        time.sleep(4)
        lab("cut")
        time.sleep(3)
        link(10)
        if not reader.wait(60) or reader.first("event 5") or reader.first("event 256"):
            complain(f"the stream has not survived: {reader.lines}")
        figures = reader.result()
        answers, longest = reader.calls()
        print(f"down for 3 s, {event_rate} events/s: {figures['bytes'] / 1e6:.0f} MB right, "
              f"longest pause {figures['pause']:.1f} s, {figures['events']:.0f} events for "
              f"{figures['asked']:.0f} requests; {figures['unsure']:.0f} failed with {answers}, "
              f"the longest took {longest:.1f} s", flush=True)
        server.detach()


def broken(server, what, event_rate, action, patience=60):
    """Does that in the middle of a stream, and says how it ends."""
    server.attach()
    reader = Reader(server.build, 524288, 32, patience, event_rate)
    time.sleep(3)
    begin = time.monotonic()
    action()
    if not reader.wait(patience + 30) or not reader.first("event 256"):
        complain(f"{what}: no end: {reader.lines}")
        link(10)
        reader.wait(patience)
    reader.result()
    say(what, reader, begin)
    link(10)
    server.detach()


def leaving(server):
    """A program that stops, closes and ends three seconds after the link has died."""
    server.attach()
    reader = Reader(server.build, 524288, 32, 6, 0)
    time.sleep(3)
    begin = time.monotonic()
    lab("cut")
    if not reader.wait(90):
        complain(f"no end: {reader.lines}")
    say("link dead, stopped and closed after 3 s", reader, begin)
    link(10)
    server.detach()


def beside(server):
    """Another device, which is plugged in here, streams in the same process when the link dies."""
    with subprocess.Popen([f"{server.build}/vexa-usb-sim", "--attach", "--port", "3242",
                           "instrument,speed=super,product=2"], stdout=subprocess.DEVNULL) as here:
        time.sleep(3)
        for event_rate in (0, 10):
            server.attach()
            reader = Reader(server.build, 524288, 32, 40, event_rate)
            time.sleep(3)
            lab("cut")
            if not reader.wait(90):
                complain(f"no end: {reader.lines}")
            print(f"link dead, {'with' if event_rate else 'without'} a call that waits: the "
                  f"longest pause of another device in the process is "
                  f"{reader.result()['other']:.1f} s", flush=True)
            link(10)
            server.detach()
        here.terminate()


def idle(server, what, patience):
    """An opened device that waits for events when the link dies."""
    server.attach()
    path = (bus_ids() - server.local).pop()
    with subprocess.Popen([f"{server.build}/vexa-usb", "events", "--path", path], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process:
        time.sleep(4)
        lab("cut")
        begin = time.monotonic()
        try:
            process.wait(patience)
            print(f"{what}: status {process.returncode} after {time.monotonic() - begin:.1f} s: "
                  f"{process.stdout.read().strip()}", flush=True)
        except subprocess.TimeoutExpired:
            complain(f"{what}: no end in {patience} s")
            process.kill()
    link(10)
    server.detach()


def freed(server):
    """How long the server of an idle device takes to notice that nobody is there any more."""
    server.attach()
    lab("cut")
    begin = time.monotonic()
    listing = [VM_LAB, "run", "usbip", "list", "-r", LAB]
    while time.monotonic() - begin < 60 and server.bus_id + ":" not in subprocess.run(
            listing, capture_output=True, text=True).stdout:
        time.sleep(0.2)
    took = time.monotonic() - begin
    print("link dead, the device can be attached anew there: "
          f"{f'after {took:.1f} s' if took < 60 else 'not in 60 s'}", flush=True)
    link(10)
    server.detach()


def ends(build):
    settings(SETTINGS)
    print("Settings: " + ", ".join(f"{name} {value}" for name, value in SETTINGS.items()))
    for usbipd in (False, True):
        print(f"\nExported by {NAMES[usbipd]}; a round trip takes 10 ms:")
        link(10)
        with Server(build, usbipd) as server:
            short_break(server)
            broken(server, "link dead, streaming", 0, lambda: lab("cut"))
            broken(server, "link dead, streaming and calling", 10, lambda: lab("cut"))
            leaving(server)
            if not usbipd:
                beside(server)
            idle(server, "link dead, only the event pipe", 60)

            freed(server)

            def cut_and_detach():
                lab("cut")
                time.sleep(3)
                server.detach()
            broken(server, "link dead, detached after 3 s", 0, cut_and_detach)
            broken(server, "link dead, detached after 3 s while a call waits", 10, cut_and_detach)
            if usbipd:
                killed_usbipd(server)
                broken(server, "the device is unbound there", 10, lambda: server.bind(False))
            else:
                broken(server, "server killed", 10, server.kill)
                server.serve()
    return wrong


def killed_usbipd(server):
    """The kernel has the connection by then."""
    server.attach()
    reader = Reader(server.build, 524288, 32, 10, 10)
    time.sleep(3)
    server.kill()
    if not reader.wait(60) or reader.first("event 5") or reader.first("event 256"):
        complain(f"usbipd killed: the stream has ended: {reader.lines}")
    refused = subprocess.run(["usbip", "attach", "-r", LAB, "-b", server.bus_id],
                             capture_output=True, text=True).stderr.splitlines()
    print(f"usbipd killed: the stream goes on, {reader.result()['bytes'] / 1e6:.0f} MB right; "
          f"another attach: {refused[-1]}", flush=True)
    server.serve()
    server.detach()


def defaults(build):
    settings(DEFAULTS)
    link(10)
    with Server(build, usbipd=False) as server:
        broken(server, "link dead, streaming, settings as Linux comes", 0, lambda: lab("cut"), 1500)


if __name__ == "__main__":
    modes = {"rates": rates, "ends": ends, "defaults": defaults}
    with open("/sys/module/usbcore/parameters/usbfs_memory_mb", "w") as limit:
        limit.write("256")
    lab("up")
    modes[sys.argv[2]](sys.argv[1], *map(int, sys.argv[3:]))
    sys.exit(1 if wrong else 0)
