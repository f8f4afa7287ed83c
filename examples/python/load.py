#!/usr/bin/env python3
"""Boots the first device from a file: load.py fx2|fx3|dfu|spl|uboot FILE

For fx2 the file is what `vexa-usb hex --binary` makes of Intel HEX."""
import sys

import vexa_usb

KINDS = {
    "fx2": vexa_usb.Device.fx2_load,
    "fx3": vexa_usb.Device.fx3_load,
    "dfu": vexa_usb.Device.dfu_download,
    "spl": vexa_usb.Device.imx7_load_spl,
    "uboot": vexa_usb.Device.imx7_load_uboot,
}


def show(done: float) -> None:
    print(f"\r{done:4.0%}", end="" if done < 1 else "\n", file=sys.stderr)


kind, path = sys.argv[1:]
with open(path, "rb") as file:
    image = file.read()
with vexa_usb.Library() as library, library.open() as device:
    KINDS[kind](device, image, show)
print(len(image), "bytes loaded; the device comes back as what they make of it")
