#!/usr/bin/env python3
"""Prints a line as each device comes or goes, until Ctrl-C."""
import asyncio

import vexa_usb


async def watch() -> None:
    with vexa_usb.Library() as library, library.watch() as changes:
        library.devices()  # those that are attached already are now added
        async for change in changes:
            info = change.device
            print(f"{change.type.name.lower()} {info.vendor_id:04x}:{info.product_id:04x}, "
                  f"device {info.id}", flush=True)


try:
    asyncio.run(watch())
except KeyboardInterrupt:
    pass
