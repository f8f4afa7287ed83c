"""The library as a whole: its devices, and its life in this process."""
from __future__ import annotations

import atexit
import os
import threading
import weakref
from collections.abc import Callable
from dataclasses import dataclass
from types import TracebackType
from typing import Any, TypeVar

from ._device import Device
from ._errors import NoDevice, NotInitialized, check
from ._events import Changes, DeviceInfo
from ._native import ffi, lib

Result = TypeVar("Result")


@dataclass(frozen=True)
class Version:
    major: int
    minor: int
    patch: int
    build: int
    suffix: str

    def __str__(self) -> str:
        return f"{self.major}.{self.minor}.{self.patch}{self.suffix}"


def version() -> Version:
    """The C library's version."""
    raw = lib.vexa_usb_get_version()
    return Version(raw.major, raw.minor, raw.patch, raw.build, ffi.string(raw.suffix).decode())


class _Process:
    """Holds the library from its first use until the interpreter ends.

    In between it is not ended: started again, it would neither follow the bus nor stream.  A process
    that left with it running would be aborted.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._started_in = 0
        self._ended = False

    def start(self) -> None:
        with self._lock:
            if self._ended:
                raise NotInitialized("start")
            if self._started_in == 0:
                self._started_in = os.getpid()
                atexit.register(self._end)
                os.register_at_fork(after_in_child=lib.bridgeForked)
                lib.vexa_usb_init()
                reason = ffi.string(lib.bridgeException()).decode()
                if reason:
                    lib.vexa_usb_fini()  # it counts all the same
                    atexit.unregister(self._end)
                    self._started_in = 0
                    check(lib.VEXA_USB_STATUS_UNKNOWN, reason)

    def _end(self) -> None:
        with self._lock:
            self._ended = True
            # The threads of the library are not there in a process that was forked.
            if self._started_in == os.getpid():
                lib.bridgeLeave()
                lib.vexa_usb_fini()


_process = _Process()


class Library:
    """Use of the library, begun when this is made.  Several at once, and one after the other, are
    all right."""

    def __init__(self) -> None:
        _process.start()
        self._owned: weakref.WeakSet[Device | Changes] = weakref.WeakSet()

    def __enter__(self) -> Library:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Closes all that was opened by this."""
        for owned in list(self._owned):
            owned.close()

    def devices(self) -> list[DeviceInfo]:
        """The supported devices that are attached now, oldest first."""
        check(lib.vexa_usb_update_device_list(), "update")
        return self._with_records(lambda records: [info for info, _ in records])

    def watch(self, timeout: float | None = None) -> Changes:
        """The changes of the device list from now on, for `for` and `async for`."""
        changes = Changes(timeout)
        self._owned.add(changes)
        return changes

    def open(self, device: DeviceInfo | None = None, *, vendor_id: int | None = None,
             product_id: int | None = None) -> Device:
        """Opens a device of devices() or of a change; or the first with these identifiers."""
        def wanted(info: DeviceInfo) -> bool:
            return ((device is None or info.id == device.id) and
                    vendor_id in (None, info.vendor_id) and product_id in (None, info.product_id))

        def open_first(records: list[tuple[DeviceInfo, Any]]) -> Device:
            for info, record in records:
                if wanted(info):
                    return Device(info, record)
            raise NoDevice("open" if device is None else f"open {device}, which has left")

        if device is None:
            check(lib.vexa_usb_update_device_list(), "update")
        opened = self._with_records(open_first)
        self._owned.add(opened)
        return opened

    def _with_records(self, use: Callable[[list[tuple[DeviceInfo, Any]]], Result]) -> Result:
        records = ffi.new("_vexa_usb_device_list_item ***")
        count = ffi.new("uint64_t *")
        check(lib.vexa_usb_get_device_list(records, count), "device list")
        try:
            return use([(DeviceInfo(each.id, each.vendor_id, each.product_id), each)
                        for each in ffi.unpack(records[0], count[0])])
        finally:
            lib.vexa_usb_free_device_list(records[0])
