#!/usr/bin/env python3
"""The FX2 loader: the image is what its source gives, and does its work in an 8051 simulator (ucsim)
with the chip's USB registers around it."""
import os
import random
import re
import subprocess

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
USBIRQ, USBCS, EP0BCL, EP0CS, SETUPDAT, EP0BUF = 0xE65D, 0xE680, 0xE68B, 0xE6A0, 0xE6B8, 0xE740
SUDAV, RENUM, STALL, BUSY, HSNAK = 1, 2, 1, 2, 0x80
STALE = bytes([0x40, 0xA3, 0, 0x30, 0, 0, 4, 0])


class Chip:
    """Runs the program; answers its writes to the registers as the chip does."""

    def __init__(self, records):
        self.ucsim = subprocess.Popen(["s51", "-t", "52", "-q"], stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.queued = []
        for address, data in records:
            self.queued.append(f"set mem rom {address} " + " ".join(map(str, data)))
        self.write(EP0CS, [HSNAK])
        self.write(SETUPDAT, STALE)  # the built-in device has dealt with it
        self.write(USBIRQ, [SUDAV])
        for register in (USBIRQ, USBCS, EP0BCL, EP0CS):
            self.queued.append(f"break xram w {register}")

    def say(self, command, last):
        """Gives commands, those that were only queued first, and returns what they print, up to a
        line that begins with `last`."""
        self.ucsim.stdin.write("\n".join(self.queued + [command]) + "\n")
        self.ucsim.stdin.flush()
        self.queued = []
        lines = []
        while not lines or not lines[-1].startswith(last):
            line = self.ucsim.stdout.readline()
            assert line, "ucsim has ended"
            lines.append(line.strip())
        return lines

    def write(self, address, data):
        self.queued.append(f"set mem xram {address} " + " ".join(map(str, data)))

    def memory(self, first, last):
        lines = self.say(f"expr 11111\ndump xram {first} {last}\nexpr 23130", "23130")
        rows = lines[lines.index("11111") + 1:-1]
        ends = [int(row[:6], 16) for row in rows[1:]] + [last + 1]
        found = bytearray()
        for row, end in zip(rows, ends):
            found += bytes.fromhex("".join(row.split()[1:1 + end - int(row[:6], 16)]))
        assert len(found) == last + 1 - first
        return found

    def next_write(self):
        """Runs up to the next write to a register: which, and the value."""
        lines = self.say("run", "Simulated")  # it must have stopped before more is said
        registers = self.memory(USBIRQ, EP0CS)
        register = int(next(re.search(r"xram\[(0x[0-9a-f]+)\]", line)[1]
                            for line in lines if "Event `write'" in line), 16)
        self.ticks = int(next(re.match(r"Simulated (\d+)", line)[1]
                              for line in lines if line.startswith("Simulated")))
        value = registers[register - USBIRQ]
        if register == USBIRQ:
            self.write(USBIRQ, [0])  # writing 1 clears
        return register, value

    def take_over(self):
        ticks = 0
        for wanted in ((USBIRQ, SUDAV), (USBCS, RENUM)):
            assert self.next_write() == wanted
            ticks += self.ticks
        return ticks

    def setup(self, packet):
        self.write(EP0CS, [HSNAK])
        self.write(SETUPDAT, packet)
        self.write(USBIRQ, [SUDAV])

    def request(self, packet, data=b"", cut_by=None):
        """A control request; returns "ack" or "stall", and the answer.  Without all of its data,
        it is cut short by the set-up packet `cut_by`."""
        self.setup(packet)
        answer = b""
        is_in = packet[0] & 0x80
        while True:
            register, value = self.next_write()
            if register == EP0CS:
                assert value in (HSNAK, STALL)
                return ("ack" if value == HSNAK else "stall"), answer
            if register == EP0BCL and is_in:
                answer = bytes(self.memory(EP0BUF, EP0BUF + value - 1)) if value else b""
            elif register == EP0BCL:
                self.write(EP0CS, [HSNAK | BUSY])
                self.say("step 40", "Simulated")  # it waits meanwhile
                if not data:
                    self.setup(cut_by)
                    continue
                self.write(EP0BUF, data[:64])
                self.write(EP0BCL, [len(data[:64])])
                self.write(EP0CS, [HSNAK])
                data = data[64:]


def vendor_write(address, length, request=0xA3, kind=0x40):
    return bytes([kind, request, address & 0xFF, address >> 8, 0, 0, length & 0xFF, length >> 8])


def load_image():
    text = open(f"{ROOT}/src/firmware/fx2_loader_image.cpp").read()
    stream = bytes(int(word, 16) for word in re.findall(r"0x([0-9A-F]{2})\b", text))
    assert len(stream) == 1070
    records = []
    while stream:
        count = stream[0]
        assert sum(stream[:count + 5]) % 256 == 0 and count <= 16
        records.append((stream[3], stream[1] << 8 | stream[2], stream[4:4 + count]))
        stream = stream[count + 5:]
    assert len(records) == 59 and records[-1] == (1, 0, b"")
    assert all(kind == 0 and address + len(data) <= 0x404 for kind, address, data in records[:-1])
    assert records[-2][1] == 0  # the reset vector comes last
    return [(address, data) for _, address, data in records[:-1]]


def main():
    subprocess.run([f"{ROOT}/scripts/fx2-loader", "--check"], check=True)
    chip = Chip(load_image())
    ticks = chip.take_over()
    # The simulated processor takes twelve ticks for a machine cycle, the chip four clocks.
    microseconds = ticks / 12 * 4 / 12
    assert microseconds < 100
    print(f"takes over within {microseconds:.1f} microseconds at 12 MHz")

    generator = random.Random(1)
    expected = chip.memory(0, 0xE1FF)
    for length, address in [(0, 0x3000), (1, 0x3000), (16, 0x3001), (64, 0x3100), (65, 0x3200),
                            (255, 0x3300), (255, 0x3F01), (128, 0x4000 - 128), (300, 0x3500)] + [
                                (generator.randint(0, 255), 0x3000 + 8 * i) for i in range(12)]:
        data = generator.randbytes(length)
        assert chip.request(vendor_write(address, length), data) == ("ack", b"")
        expected[address:address + length] = data
        assert chip.memory(address, address + max(length, 1) - 1) == \
            expected[address:address + max(length, 1)], "acknowledged, but not in memory"
    # A data stage that a new request cuts short, with and without some of its data.
    for data in (b"", generator.randbytes(64)):
        answer = chip.request(vendor_write(0x3800, 200), data, vendor_write(0, 0, 0x77))
        assert answer == ("stall", b"")
        expected[0x3800:0x3800 + len(data)] = data
    for refused in (vendor_write(0x3000, 0, 0xA4), vendor_write(0x3000, 4, kind=0xC0),
                    vendor_write(0x3000, 0, kind=0x41), bytes([0x80, 6, 0, 1, 0, 0, 18, 0]),
                    bytes([0x21, 9, 0, 0, 0, 0, 0, 0]), bytes([0, 7, 0, 1, 0, 0, 0, 0])):
        assert chip.request(refused) == ("stall", b""), refused
    for packet, answer in ((bytes([0x80, 0, 0, 0, 0, 0, 2, 0]), b"\0\0"),
                           (bytes([0x80, 8, 0, 0, 0, 0, 1, 0]), b"\1"),
                           (bytes([0x00, 9, 3, 0, 0, 0, 0, 0]), b""),
                           (bytes([0x80, 8, 0, 0, 0, 0, 0xFF, 1]), b"\3"),
                           (bytes([0x81, 10, 0, 0, 0, 0, 1, 0]), b"\0"),
                           (bytes([0x82, 0, 0, 0, 0, 0, 1, 0]), b"\0"),
                           (bytes([0x01, 11, 0, 0, 0, 0, 0, 0]), b""),
                           (bytes([0x02, 1, 0, 0, 0x82, 0, 0, 0]), b"")):
        assert chip.request(packet) == ("ack", answer), packet
    assert chip.memory(0, 0xE1FF) == expected, "touched other memory"
    print("wrote what it was told to, and nothing else")
    chip.ucsim.stdin.write("quit\n")
    chip.ucsim.communicate()


if __name__ == "__main__":
    main()
