#!/usr/bin/env python3
"""Writes and reads by control transfers: the simulated instrument keeps what request 1 gives it."""
import vexa_usb

REQUEST = 1

with vexa_usb.Library() as library, library.open() as device:
    descriptor = device.descriptor()
    print(f"{descriptor.idVendor:04x}:{descriptor.idProduct:04x}, "
          f"release {descriptor.bcdDevice:x}, serial number '{device.serial_number}'")
    sent = b"Hello, instrument"
    device.control_out(REQUEST, data=sent)
    received = device.control_in(REQUEST, length=len(sent))
    print(received.decode())
    assert received == sent
