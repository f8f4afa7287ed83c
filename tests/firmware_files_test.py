#!/usr/bin/env python3
"""What the command makes of firmware files, right and wrong: firmware_files_test.py COMMAND"""
import json
import os
import resource
import struct
import subprocess
import sys
import tempfile

sys.path.append(os.path.dirname(os.path.abspath(__file__)) + "/system")
from firmware_images import dfu, fx3, uboot  # noqa: E402
from imx7_image import spl  # noqa: E402

command = os.path.abspath(sys.argv[1])
directory = tempfile.TemporaryDirectory()
os.chdir(directory.name)


def run(status, text, *words, **streams):
    done = subprocess.run([command, *words], stdout=streams.pop("stdout", subprocess.PIPE),
                          stderr=subprocess.PIPE, text=True, **streams)
    assert (done.returncode, text in (done.stdout or "") + done.stderr) == (status, True), \
        (words, text, done)
    return done.stdout


def write(name, data):
    with open(name, "wb") as file:
        file.write(data)


def read(name):
    with open(name, "rb") as file:
        return file.read()


def record(kind, address, data=b""):
    fields = struct.pack(">BHB", len(data), address, kind) + data
    return fields + bytes([-sum(fields) & 0xFF])


def hex_file(*records):
    write("f.hex", "".join(f":{each.hex()}\n" for each in records).encode())


START = record(5, 0, bytes(4))
END = record(1, 0)

# Records in any order, start addresses, the same bytes twice over the edges of records.
hex_file(START, record(4, 0, b"\0\1"), record(0, 2, b"ef"), record(3, 0, bytes(4)),
         record(4, 0, b"\0\0"), record(0, 4, b"cdcd"), record(0, 2, b"abcd"), record(0, 6, b"cd"),
         END)
report = json.loads(run(0, "", "hex", "f.hex", "--image", "image", "--json"))
assert read("image") == b"\0\0abcdcd" + bytes(0x10002 - 8) + b"ef"
assert report["segments"] == [{"address": 2, "size": 6}, {"address": 0x10002, "size": 2}]
assert report["overlaps"] == [{"address": 4, "size": 4, "lines": [6, 7], "same": True}], report
run(0, "the same bytes (lines 6 and 7)", "hex", "f.hex")
hex_file(record(0, 4, b"abcd"), record(0, 8, b"efgh"), record(0, 0, b"0123"), record(0, 6, b"cdeX"))
write("image", b"precious")
run(6, "lines 2 and 4 give different bytes for 0x9", "hex", "f.hex", "--image", "image")
assert read("image") == b"precious" and len(os.listdir()) == 2
run(0, "DIFFERENT bytes at 0x9 (lines 2 and 4)", "hex", "f.hex")

# What the FX2 loader can load, from what it could not.
hex_file(START, record(2, 0, b"\2\xff"), record(0, 6, b"abcd"), record(2, 0, b"\0\0"),
         record(0, 0x2FFE, b"abcd"), record(0, 0xFFFE, b"yz"), END, record(0, 0, b"behind"))
run(0, "", "hex", "f.hex", "--binary", "binary")
assert read("binary") == b"".join([record(0, 0x2FF6, b"abcd"), record(0, 0x2FFE, b"ab"),
                                   record(0, 0x3000, b"cd"), record(0, 0xFFFE, b"yz"), END])
run(3, "no device", "load", "fx2", "1:2", "f.hex")
for wrong, text in [([record(0, 0xFFFE, b"xyz")], "line 1: data from 0xfffe to 0x10000"),
                    ([record(4, 0, b"\1")], "line 1: the length of an extended address"),
                    ([record(2, 0, b"\x10\0"), record(0, 0, b"x")], "line 2: data from 0x10000"),
                    ([record(6, 0)], "line 1: unknown record type")]:
    hex_file(*wrong, END)
    run(6, text, "hex", "f.hex", "--binary", "binary")
    run(6, text, "load", "fx2", "1:2", "f.hex")
hex_file(record(0, 0, b"x"))
run(6, "no End Of File record", "hex", "f.hex", "--binary", "binary")
hex_file(record(4, 0, b"\xff\xff"), record(0, 0xFFFF, b"xy"), END)
run(6, "line 2: the data run past the highest address", "hex", "f.hex")

write("f.hex", b":00000001FF\n\n:0000000")
for words in ("hex", "f.hex"), ("load", "fx2", "1:2", "f.hex"):
    run(6, "line 3: Not a whole record", *words)

# One file by two names.
hex_file(record(0, 0, b"x"), END)
os.link("image", "hard")
os.symlink("image", "soft")
os.symlink("new", "dangling")
for one, other in [("image", "./image"), ("hard", "image"), ("soft", "image"), ("new", "./new"),
                   ("dangling", "new"), ("-", "-"), ("-", "/dev/stdout")]:
    run(2, "same file", "hex", "f.hex", "--binary", one, "--image", other)
with open("image", "ab") as image:
    run(2, "same file", "hex", "f.hex", "--binary", "-", "--image", "image", stdout=image)
assert read("image") == b"precious" and not os.path.exists("new")

# Wrong files are known before a device is looked for.
right = uboot(b"payload"), spl(2000), fx3(), dfu(b"image")
far = bytearray(right[1])
struct.pack_into("<I", far, 16, 0x00910000 + 1990)
for kind, data, text in [
        ("uboot", right[0] + b"more", None),
        ("uboot", right[0][:40] + b"X" + right[0][41:], "checksum of its header"),
        ("uboot", right[0][:-1], "6 bytes of data"),
        ("uboot", right[0][:-1] + b"X", "checksum of its data"),
        ("uboot", right[0][:30], "checksum of its header"),
        ("uboot", b"\xd0\x0d\xfe\xed" + bytes(60), "FIT image"),
        ("uboot", right[1], "load spl"),
        ("spl", right[1], None),
        ("spl", right[1][:-1], "1999 bytes, where its boot data promise 2000"),
        ("spl", far, "boot data that its header points to are not in the file"),
        ("spl", right[0], "load uboot"),
        ("fx3", right[2], None),
        ("fx3", fx3(b"cy\x1c\xb0"), "signature"),
        ("fx3", fx3(b"CY\x1c\xb2"), "type 0xb2"),
        ("fx3", fx3(b"CY\x1d\xb0"), "data instead of a program"),
        ("fx3", right[2][:-4] + b"XXXX", "Invalid checksum"),
        ("fx3", right[2][:-12], "no program entry"),
        ("dfu", right[3], None),
        ("dfu", b"X" + right[3][1:], "checksum of its DFU suffix"),
        ("dfu", dfu(b"", length=16), "nothing but a suffix"),
        ("dfu", b"DfuSe\1" + bytes(300), "DfuSe"),
        ("dfu", dfu(b"image", version=0x011A), "DfuSe"),
        ("dfu", b"", "empty")]:
    write("firmware", data)
    run(6 if text else 3, text or "no device", "load", kind, "1:2", "firmware")

# Too much to be firmware.
with open("firmware", "wb") as file:
    file.truncate(5 << 30)
os.mkfifo("endless")
for kind in "fx2", "fx3", "dfu", "spl", "uboot":
    run(6, "firmware: more than 128 MiB", "load", kind, "1:2", "firmware")
    writer = subprocess.Popen(["sh", "-c", "yes '' >endless"], stderr=subprocess.DEVNULL)
    run(6, "endless: more than 128 MiB", "load", kind, "1:2", "endless")
    writer.wait()
most = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
assert most < 300 << 10, f"{most} KiB"

run(2, "fx2, fx3, dfu, spl, uboot", "load", "foo", "1:2", "firmware")
run(2, "class, standard, vendor", "control", "1", "--type", "foo")
print("ok")
