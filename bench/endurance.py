#!/usr/bin/env python3
"""Inside the virtual machine: a random mix of everything, for as long as wanted.

  endurance.py BUILD [--seconds N] [--seed N] [--log FILE]

Simulated instruments of both speeds, and bare processors that come to the bus one after the other.
One process uses instruments from the beginning to the end; its memory, threads, descriptors and
mappings must stay flat. Beside it others come and go, with strict and default streams, shared and
private rings; some are killed or stopped for a while, devices are reset or their authorisation is
taken away, and bare processors are booted. Every byte that is read is looked at. The same seed
gives the same mix, but for what the machine's speed decides.

The log gets the samples of the process that stays, a line of JSON each; endurance_chart.py draws
them. Exit status 1 when something happened that must not.
"""
import argparse
import json
import os
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time

FIRMWARE = "examples/fx2_renumerate.hex"
WARM_UP = 0.25    # of the time, after which memory must not grow
MAX_GROWTH = 16384  # KiB, a ring's worth; by the least of a third, when rings are small
STAYS = 3         # devices of the process that stays

options = argparse.ArgumentParser()
options.add_argument("build")
options.add_argument("--seconds", type=float, default=60)
options.add_argument("--seed", type=int, default=1)
options.add_argument("--log")
options = options.parse_args()
chance = random.Random(options.seed)
program = f"{options.build}/bench/endurance"
counts = {}
findings = []


def count(what, by=1):
    counts[what] = counts.get(what, 0) + by


class Client:
    """A process that uses instruments."""

    def __init__(self, seconds, devices, *arguments, samples=None):
        self.killed = False
        self.strict = chance.random() < 0.5 or samples is not None
        environment = dict(os.environ, VEXA_USB_STREAM="strict" if self.strict else "default",
                           # else the sanitizer keeps 256 MB of what is freed
                           ASAN_OPTIONS="quarantine_size_mb=8")
        if chance.random() < 0.5 and samples is None:
            environment["VEXA_USB_RING"] = "private"
        self.output = samples or tempfile.TemporaryFile("w+")
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(
            [program, "--seconds", str(seconds), "--devices", str(devices), "--overflows",
             "--foreign", "--seed", str(chance.randrange(1 << 30)), *arguments],
            env=environment, stdout=self.output, stderr=self.errors)

    def kill(self):
        if self.process.poll() is not None:
            return
        self.killed = True
        self.process.kill()
        count("clients killed")

    def pause(self):
        self.process.send_signal(signal.SIGSTOP)
        time.sleep(1)
        self.process.send_signal(signal.SIGCONT)
        count("clients stopped for a while")

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
        if status != 0:
            findings.append(f"a client ended with {status}: {errors[-2000:]}")
            return None
        result = json.loads(self.output.read().splitlines()[-1])
        for name in ("bytes", "sessions", "event_bytes", "removals", "overflows", "lost_streams",
                     "timeouts"):
            count(name, result[name])
        return result


def instruments():
    return [device for device in pathlib.Path("/sys/bus/usb/devices").glob("*-*")
            if ":" not in device.name and (device / "product").exists()
            and "Simulated instrument" in (device / "product").read_text()]


def disturb_a_device():
    try:
        device = chance.choice(instruments())
        if chance.random() < 0.5:
            subprocess.run(["usbreset", "/".join((device / name).read_text().strip().zfill(3)
                                                 for name in ("busnum", "devnum"))],
                           capture_output=True, timeout=60)
            count("resets")
        else:
            (device / "authorized").write_text("0")
            time.sleep(0.3)
            (device / "authorized").write_text("1")
            count("authorisations taken and given")
    except (OSError, IndexError):  # it has left
        pass


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


def simulator():
    devices = ["instrument,speed=high", "instrument,speed=super"] * 5
    devices += [f"fx2,away={int(options.seconds * 1000 * (i + 1) / 8)}" for i in range(6)]
    process = subprocess.Popen([f"{options.build}/vexa-usb-sim", "--attach", "--port", "0", *devices],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    end = time.time() + 60
    while len(instruments()) < 10 and time.time() < end:
        time.sleep(0.2)
    return process


def disturb(clients, bus):
    action = chance.choice((disturb_a_device, boot, "kill", "pause", "bus", None, None))
    if callable(action):
        action()
    elif action == "bus":
        bus.send_signal(signal.SIGSTOP)
        time.sleep(chance.choice((0.2, 3)))
        bus.send_signal(signal.SIGCONT)
        count("simulator stopped for a while")
    elif action and clients:
        getattr(chance.choice(clients), action)()


def is_flat(samples):
    """Whether what the process that stays uses has grown after the warm-up."""
    warm = [one for one in samples if one["seconds"] >= options.seconds * WARM_UP]
    if not warm:
        findings.append("the process that stays has ended early")
        return
    third = max(1, len(warm) // 3)
    for name, slack in (("resident_kib", MAX_GROWTH), ("threads", 2), ("descriptors", 4),
                        ("mappings", 20)):
        first, last = (min(one[name] for one in part) for part in (warm[:third], warm[-third:]))
        print(f"{name}: at least {first}, later {last}")
        if last > first + slack:
            findings.append(f"{name} has grown from {first} to {last}")


def main():
    print(f"seed {options.seed}", flush=True)
    bus = simulator()
    log = open(options.log, "w+") if options.log else tempfile.TemporaryFile("w+")
    begin = time.time()
    stays = Client(options.seconds, STAYS, "--samples", "--pulls", "0.2", samples=log)
    clients = []
    while time.time() < begin + options.seconds and stays.process.poll() is None:
        for client in [one for one in clients if one.process.poll() is not None]:
            clients.remove(client)
            client.finish()
            count("clients")
        if len(clients) < 3:
            clients.append(Client(chance.uniform(3, max(4, min(15, options.seconds / 3))), chance.randrange(1, 3), "--pulls", "0.1"))
        disturb(clients, bus)
        time.sleep(chance.uniform(0.5, 2))
    for client in [*clients, stays]:
        client.finish()
    log.seek(0)
    is_flat([one for one in map(json.loads, log) if "latency_ms" in one and "after_closing" not in one])
    bus.terminate()
    if bus.wait(timeout=60) != 0:
        findings.append("the simulator failed")
    print(", ".join(f"{name}: {counts[name]}" for name in sorted(counts)))
    print(*findings, sep="\n")
    print(f"seed {options.seed}, {time.time() - begin:.0f} s: "
          f"{counts.get('bytes', 0) / 1e9:.2f} GB looked at, {len(findings)} findings")
    sys.exit(1 if findings or not counts.get("bytes") else 0)


if __name__ == "__main__":
    main()
