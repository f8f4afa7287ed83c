#!/usr/bin/env python3
"""Streams from endpoint 0x82 to a file: record.py FILE BYTES"""
import sys

import vexa_usb

path, left = sys.argv[1], int(sys.argv[2])
with vexa_usb.Library() as library, library.open() as device, open(path, "wb") as file, \
        device.stream(0x82, 1 << 20, 32, timeout=5) as stream:
    for view in stream:
        file.write(view[:left])  # from the ring itself
        left -= len(view)
        if left <= 0:
            break
