#!/usr/bin/env python3
"""Lists the supported devices that are attached."""
import vexa_usb

with vexa_usb.Library() as library:
    devices = library.devices()
    print(f"library {vexa_usb.version()} sees {len(devices)} devices")
    for info in devices:
        print(f"device {info.id}: {info.vendor_id:04x}:{info.product_id:04x}")
