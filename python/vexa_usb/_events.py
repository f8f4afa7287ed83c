"""What a device, or the device list, reports."""
from __future__ import annotations

import enum
from dataclasses import dataclass
from types import TracebackType
from typing import TYPE_CHECKING

from ._errors import DeviceRemoved, check
from ._native import ffi, lib
from ._source import Source

if TYPE_CHECKING:
    from ._device import Device


class DeviceEvent(enum.IntEnum):
    """Events that the library makes itself; those from 0 to 255 are bytes that the device sent."""

    REMOVED = lib.VEXA_USB_DEVICE_EVENT_REMOVED
    STREAM_STARTED = lib.VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED
    STREAM_STOPPED = lib.VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED


_NAMED = {int(event): event for event in DeviceEvent}


class Events(Source[int]):
    """The events of one device since it was opened; ends after DeviceEvent.REMOVED.

    While the device streams, its Stream has the stream's own events; bytes 4 and 5 cannot be told
    from them, so a device that streams must not send these.
    """

    def __init__(self, device: Device, timeout: float | None) -> None:
        super().__init__(device._number, timeout)
        self._device = device

    def __next__(self) -> int:
        try:
            return super().__next__()
        except DeviceRemoved:
            raise StopIteration from None

    async def __anext__(self) -> int:
        try:
            return await super().__anext__()
        except DeviceRemoved:
            raise StopAsyncIteration from None

    def _take(self) -> int | None:
        event = lib.bridgeTakeEvent(self._number)
        if event == lib.kBridgeEmpty:
            return None
        if event < 0:
            check(event, "events of the device")
        return _NAMED.get(event, int(event))


class ChangeType(enum.IntEnum):
    ADDED = lib.VEXA_USB_DEVICE_LIST_EVENT_ADDED
    REMOVED = lib.VEXA_USB_DEVICE_LIST_EVENT_REMOVED


@dataclass(frozen=True)
class DeviceInfo:
    """A device of the list.  One that leaves and returns gets a new `id`."""

    id: int
    vendor_id: int
    product_id: int


@dataclass(frozen=True)
class Change:
    """A device was added to the list, or removed."""

    type: ChangeType
    device: DeviceInfo


class Changes(Source[Change]):
    """The changes of the device list since this was made."""

    def __init__(self, timeout: float | None) -> None:
        self._number = 0  # for __del__, if this fails
        status = ffi.new("int32_t *")
        super().__init__(lib.bridgeWatchNew(status), timeout)
        check(status[0], "watch")

    def __enter__(self) -> Changes:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        lib.bridgeFree(self._number)

    def _take(self) -> Change | None:
        record = ffi.new("BridgeChange *")
        status = lib.bridgeTakeChange(self._number, record)
        if status == lib.kBridgeEmpty:
            return None
        check(status, "watch")
        return Change(ChangeType(record.type),
                      DeviceInfo(record.id, record.vendor_id, record.product_id))
