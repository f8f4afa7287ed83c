#!/usr/bin/env python3
"""Makes firmware files with right checksums; as a program, puts what standard input holds into one:
firmware_images.py uboot|dfu [VENDOR PRODUCT]"""
import struct
import sys
import zlib


def uboot(data, load=0x80800000):
    def header(checksum):
        return struct.pack(">7I4B32s", 0x27051956, checksum, 0, len(data), load, load,
                           zlib.crc32(data), 17, 2, 5, 0, b"test")
    return header(zlib.crc32(header(0))) + data


def dfu(data, vendor=0xFFFF, product=0xFFFF, version=0x0100, length=20):
    file = data + bytes(length - 16) + struct.pack("<4H3sB", 0xFFFF, product, vendor, version,
                                                   b"UFD", length)
    return file + struct.pack("<I", zlib.crc32(file) ^ 0xFFFFFFFF)


def fx3(header=b"CY\x1c\xb0", words=(0x64636261,)):
    return header + struct.pack(f"<2I{len(words)}I3I", len(words), 0x40000000, *words,
                                0, 0x40000000, sum(words) & 0xFFFFFFFF)


if __name__ == "__main__":
    make = {"uboot": uboot, "dfu": dfu}[sys.argv[1]]
    sys.stdout.buffer.write(make(sys.stdin.buffer.read(), *(int(word, 16) for word in sys.argv[2:])))
