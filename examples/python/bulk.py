#!/usr/bin/env python3
"""Writes to bulk endpoint 0x03 and reads the same from 0x83, where the simulated instrument loops it
back; then clears the halt of an endpoint that has stalled."""
import vexa_usb

OUT, IN = 0x03, 0x83

with vexa_usb.Library() as library, library.open() as device:
    sent = bytes(i % 251 for i in range(100000))
    device.bulk_write(OUT, sent)
    assert device.bulk_read(IN, len(sent)) == sent
    print(len(sent), "bytes went and came")
    try:
        device.bulk_read(IN, 1)
    except vexa_usb.Timeout as error:
        print("one more:", error)
    device.clear_halt(IN)
