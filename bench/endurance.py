#!/usr/bin/env python3
"""Inside the virtual machine: a random mix of everything, for as long as wanted.

  endurance.py BUILD [--seconds N] [--seed N] [--log FILE]
  endurance.py BUILD --each N [--seed N]

Simulated instruments of both speeds, and bare processors that come to the bus one after the other.
One process uses instruments from the beginning to the end; its memory, threads, descriptors and
mappings must stay flat. Beside it others come and go, with strict and default streams, shared and
private rings; some are killed or stopped for a while, devices are reset or their authorisation is
taken away, and bare processors are booted. Every byte that is read is looked at. The same seed
gives the same mix, but for what the machine's speed decides.

With --each there is no process that stays: clients come and go, and everything that the system, an
administrator or another program can do to them, the devices and the simulator happens to them one
after the other, in random order and each N times.

The log gets the samples of the process that stays, a line of JSON each; endurance_chart.py draws
them. Exit status 1 when something happened that must not.
"""
import argparse
import functools
import json
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

FIRMWARE = "examples/fx2_renumerate.hex"
WARM_UP = 0.25    # of the time, after which memory must not grow
MAX_GROWTH = 16384  # KiB, a ring's worth; by the least of a third, when rings are small
STAYS = 3         # devices of the process that stays

options = argparse.ArgumentParser()
options.add_argument("build")
options.add_argument("--seconds", type=float, default=60)
options.add_argument("--seed", type=int, default=1)
options.add_argument("--each", type=int)
options.add_argument("--log")
options = options.parse_args()
chance = random.Random(options.seed)
program = f"{options.build}/bench/endurance"
counts = {}
findings = []


def find(what):
    """Notes what must not happen, and says so at once."""
    findings.append(what)
    print(f"found: {what}", flush=True)


def only_abandoned(errors):
    """Whether the leak sanitizer tells of nothing but what libusb 1.0.26 keeps of a transfer that
    does not come back, 56 bytes: an event pipe's is given up after 500 ms, when the bus stands
    still."""
    leaks = re.findall(r"leak of (\d+) byte\(s\) in (\d+) object.*\n.*in .*calloc.*\n +#1 (.*)",
                       errors)
    return len(leaks) == errors.count(" leak of ") > 0 and all(
        int(size) == 56 * int(objects) and "libusb-1.0" in where
        for size, objects, where in leaks)


def count(what, by=1):
    counts[what] = counts.get(what, 0) + by


def counted(what):
    """Counts what is done, unless False comes back; the name is kept as `what`."""
    def wrap(action):
        @functools.wraps(action)
        def counting(*arguments):
            if action(*arguments) is not False:
                count(what)
        counting.what = what
        return counting
    return wrap


class Client:
    """A process that uses instruments."""

    def __init__(self, seconds, devices, *arguments, samples=None):
        self.killed = False
        self.strict = chance.random() < 0.5 or samples is not None
        environment = dict(os.environ, VEXA_USB_STREAM="strict" if self.strict else "default",
                           # else the sanitizer keeps 256 MB of what is freed
                           ASAN_OPTIONS="quarantine_size_mb=8", VEXA_USB_LOG="error")
        if chance.random() < 0.5 and samples is None:
            environment["VEXA_USB_RING"] = "private"
        self.output = samples or tempfile.TemporaryFile("w+")
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(
            [program, "--seconds", str(seconds), "--devices", str(devices), "--overflows",
             "--foreign", "--seed", str(chance.randrange(1 << 30)), *arguments],
            env=environment, stdout=self.output, stderr=self.errors)

    @counted("clients killed")
    def kill(self):
        if self.process.poll() is not None:
            return False
        self.killed = True
        self.process.kill()
        return True

    @counted("clients stopped for a while")
    def pause(self, seconds=1):
        """Others go on meanwhile."""
        if self.process.poll() is not None:
            return False
        self.process.send_signal(signal.SIGSTOP)
        threading.Timer(seconds, self.process.send_signal, (signal.SIGCONT,)).start()
        return True

    def finish(self):
        try:
            status = self.process.wait(timeout=300)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = "no end"
        self.output.seek(0)
        self.errors.seek(0)
        if self.killed:
            return None
        errors = self.errors.read()
        own = [line for line in errors.splitlines() if line.startswith("endurance: ")]
        if status != 0 and not own and only_abandoned(errors):
            count("clients that gave a transfer up")
            return None
        if status != 0:
            find("\n".join([f"a client ended with {status}", *own, "with:", errors[-4000:]]))
            return None
        result = json.loads(self.output.read().splitlines()[-1])
        # The log may tell of more: of streams that the client no longer watched.
        if result["silent_streams"] > errors.count("no transfer is left, and no event will come"):
            find(f"streams were silent, and the log does not say why: {errors[-4000:]}")
        for name in ("bytes", "sessions", "event_bytes", "removals", "overflows", "lost_streams",
                     "silent_streams", "timeouts"):
            count(name, result[name])
        return result


def is_instrument(device):
    try:
        return ":" not in device.name and "Simulated instrument" in (device / "product").read_text()
    except OSError:  # it is just leaving
        return False


def instruments():
    return [one for one in pathlib.Path("/sys/bus/usb/devices").glob("*-*") if is_instrument(one)]


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


def give_back(device, path, text, is_back=lambda: False):
    """Without it the device would be away for good, and the clients would wait for it."""
    end = time.time() + 20
    while device.exists() and not is_back():
        try:
            write(path, text)
            return
        except OSError as error:
            if time.time() > end:
                find(f"{path} could not be written: {error}")
                return
        time.sleep(0.1)


@counted("resets")
def reset(device):
    run("usbreset", "/".join((device / name).read_text().strip().zfill(3)
                             for name in ("busnum", "devnum")))


@counted("authorisations taken and given")
def deauthorise(device):
    write(device / "authorized", "0")
    time.sleep(chance.choice((0, 0.3)))
    give_back(device, device / "authorized", "1")


@counted("devices unbound and bound")
def unbind(device):
    """Takes the device away from the kernel, so that it has no interfaces, and gives it back."""
    write("/sys/bus/usb/drivers/usb/unbind", device.name)
    time.sleep(chance.choice((0, 0.3)))
    # Meanwhile it may be unplugged and another plugged in at its place, which has its driver.
    give_back(device, pathlib.Path("/sys/bus/usb/drivers/usb/bind"), device.name,
              is_back=(device / "driver").exists)
    configuration = device / "bConfigurationValue"
    if not configuration.read_text().strip():  # the device did not answer in time
        write(configuration, "1")


@counted("interfaces unbound")
def unclaim(device):
    """Takes a claimed interface away from the process that has claimed it.

    Another process could claim it then, and get the bytes of the first; so there must be no other.
    """
    write("/sys/bus/usb/drivers/usbfs/unbind", f"{device.name}:1.0")


def disturb_a_device(action):
    for _ in range(50):
        try:
            return action(chance.choice(instruments()))
        except (OSError, IndexError):  # it has left, or nobody has claimed it
            time.sleep(0.1)


def boot():
    """Boots an FX2 that has come to the bus."""
    listed = subprocess.run([f"{options.build}/vexa-usb", "list", "--json"],
                            capture_output=True, text=True)
    bare = [one for one in json.loads(listed.stdout or "[]")
            if one["product"] == 0x8613 and one.get("path")]
    if bare:
        done = subprocess.run([f"{options.build}/vexa-usb", "load", "fx2", "04b4:8613",
                               "--path", bare[0]["path"], FIRMWARE],
                              capture_output=True, text=True, timeout=120)
        count("loads" if done.returncode == 0 else "loads that failed")
        if done.returncode != 0:
            print(done.stderr, file=sys.stderr)


class Bus:
    """The simulator, with its devices plugged in."""

    def __init__(self, *devices):
        self.devices = devices
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            [f"{options.build}/vexa-usb-sim", "--attach", "--port", "0", *self.devices],
            stdout=subprocess.PIPE, text=True)
        self.port = self.process.stdout.readline().strip().rpartition(":")[2]
        wait_for("the devices to come",
                 lambda: len(instruments()) == sum("instrument" in one for one in self.devices))

    @counted("simulator stopped for a while")
    def pause(self, seconds):
        self.process.send_signal(signal.SIGSTOP)
        time.sleep(seconds)
        self.process.send_signal(signal.SIGCONT)

    @counted("simulators killed")
    def replace(self):
        self.process.kill()
        self.process.wait()
        wait_for("the devices to go", lambda: not instruments())
        self.start()

    @counted("devices detached and attached")
    def replug(self):
        """Unplugs a device by the system's own command, and plugs it in again."""
        ports = re.findall(r"Port (\d+):.*?(\d+-\d+) -> usbip:\S*/(\S+)",
                           run("usbip", "port").stdout, re.DOTALL)
        if not ports:
            return False
        port, device, name = chance.choice(ports)
        run("usbip", "detach", "-p", port)
        wait_for("the device to go",
                 lambda: not pathlib.Path("/sys/bus/usb/devices", device).exists())
        wait_for("usbip to attach the device",
                 lambda: run("usbip", "--tcp-port", self.port, "attach", "-r", "127.0.0.1",
                             "-b", name).returncode == 0)
        return True

    def end(self):
        self.process.terminate()
        if self.process.wait(timeout=60) != 0:
            find("the simulator failed")


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, timeout=60)


def wait_for(what, condition):
    end = time.time() + 60
    while not condition():
        if time.time() > end:
            log = run("dmesg").stdout.splitlines()[-20:]
            find("\n".join([f"waited in vain for {what}", run("usbip", "port").stdout, *log]))
            return
        time.sleep(0.05)


def disturb(clients, bus):
    action = chance.choice(("device", boot, "kill", "pause", "bus", None, None))
    if action == "device":
        disturb_a_device(chance.choice((reset, deauthorise, unbind)))
    elif callable(action):
        action()
    elif action == "bus":
        bus.pause(chance.choice((0.2, 3)))
    elif action and clients:
        getattr(chance.choice(clients), action)()


def is_flat(samples):
    """Whether what the process that stays uses has grown after the warm-up."""
    warm = [one for one in samples if one["seconds"] >= options.seconds * WARM_UP]
    if not warm:
        find("the process that stays has ended early")
        return
    third = max(1, len(warm) // 3)
    for name, slack in (("resident_kib", MAX_GROWTH), ("threads", 2), ("descriptors", 4),
                        ("mappings", 20)):
        first, last = (min(one[name] for one in part) for part in (warm[:third], warm[-third:]))
        print(f"{name}: at least {first}, later {last}")
        if last > first + slack:
            find(f"{name} has grown from {first} to {last}")


class Clients:
    """Those that come and go, each with one of those numbers of devices."""

    def __init__(self, most, devices, *arguments):
        self.most = most
        self.devices = devices
        self.arguments = arguments
        self.running = []

    def renew(self, longest):
        for client in [one for one in self.running if one.process.poll() is not None]:
            self.running.remove(client)
            client.finish()
            count("clients")
        while len(self.running) < self.most:
            self.running.append(Client(chance.uniform(3, longest), chance.choice(self.devices),
                                       *self.arguments))

    def finish(self):
        for client in self.running:
            client.finish()
            count("clients")


def mix():
    """Everything at random, for as long as wanted."""
    bus = Bus(*["instrument,speed=high", "instrument,speed=super"] * 5,
              *(f"fx2,away={int(options.seconds * 1000 * (i + 1) / 8)}" for i in range(6)))
    log = open(options.log, "w+") if options.log else tempfile.TemporaryFile("w+")
    end = time.time() + options.seconds
    stays = Client(options.seconds, STAYS, "--samples", "--pulls", "0.2", samples=log)
    clients = Clients(3, (1, 2), "--pulls", "0.1")
    while time.time() < end and stays.process.poll() is None:
        clients.renew(max(4, min(15, options.seconds / 3)))
        disturb(clients.running, bus)
        time.sleep(chance.uniform(0.5, 2))
    clients.finish()
    stays.finish()
    log.seek(0)
    is_flat([one for one in map(json.loads, log)
             if "latency_ms" in one and "after_closing" not in one])
    bus.end()


def each():
    """Everything that can happen to clients from outside, so and so many times."""
    bus = Bus("instrument,speed=high", "instrument,speed=super")
    clients = Clients(1, (2,))

    def one():
        return chance.choice(clients.running)

    happenings = (
        *((action, lambda action=action: disturb_a_device(action))
          for action in (reset, deauthorise, unbind, unclaim)),
        (Client.kill, lambda: one().kill()), (Client.pause, lambda: one().pause(3)),
        (Bus.pause, lambda: bus.pause(3)), (Bus.replug, bus.replug), (Bus.replace, bus.replace))
    turns = options.each * [turn for _, turn in happenings]
    chance.shuffle(turns)
    for done, turn in enumerate(turns, 1):
        clients.renew(20)
        time.sleep(chance.uniform(0, 1))
        turn()
        if done % 100 == 0:
            print(f"{done} of {len(turns)}, {len(findings)} findings", flush=True)
    clients.finish()
    bus.end()
    few = [action.what for action, _ in happenings
           if counts.get(action.what, 0) < 0.8 * options.each]
    if few:
        find(f"too seldom, the clients left no room for them: {', '.join(few)}")


def main():
    print(f"seed {options.seed}", flush=True)
    begin = time.time()
    each() if options.each else mix()
    print(", ".join(f"{name}: {counts[name]}" for name in sorted(counts)))
    print(f"seed {options.seed}, {time.time() - begin:.0f} s: "
          f"{counts.get('bytes', 0) / 1e9:.2f} GB looked at, {len(findings)} findings")
    sys.exit(1 if findings or not counts.get("bytes") else 0)


if __name__ == "__main__":
    main()
