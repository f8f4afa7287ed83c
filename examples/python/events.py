#!/usr/bin/env python3
"""Prints the event bytes of endpoint 0x81, until the device leaves or a number has come."""
import asyncio
import itertools
import sys

import vexa_usb


async def listen(wanted: int | None) -> None:
    with vexa_usb.Library() as library, library.open() as device:
        device.enable_events(0x81)
        come = itertools.count(1)
        async for event in device.events():
            if event > 0xFF:
                print(vexa_usb.DeviceEvent(event).name)
                continue
            print(f"{event:#04x}", flush=True)
            if next(come) == wanted:
                break


asyncio.run(listen(int(sys.argv[1]) if len(sys.argv) > 1 else None))
