#!/usr/bin/env python3
"""Writes an i.MX7 boot image: imx7_image.py FILE SIZE"""
import struct
import sys

ADDRESS = 0x00910000


def spl(size):
    table = struct.pack("<BBBB7I", 0xD1, 0, 32, 0x40, ADDRESS + 64, 0, 0, ADDRESS + 32, ADDRESS,
                        0, 0)
    boot_data = struct.pack("<3I", ADDRESS, size, 0)
    return (table + boot_data + bytes(i * 7 & 0xFF for i in range(size)))[:size]


if __name__ == "__main__":
    with open(sys.argv[1], "wb") as file:
        file.write(spl(int(sys.argv[2])))
