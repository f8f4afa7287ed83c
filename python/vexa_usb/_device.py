"""An opened device."""
from __future__ import annotations

import enum
import gc
import warnings
import weakref
from collections.abc import Callable
from dataclasses import dataclass
from types import TracebackType
from typing import Any

from ._errors import InvalidParameters, check
from ._events import DeviceInfo, Events
from ._load import Load, Progress
from ._native import ffi, lib
from ._stream import Stream

# What keeps devices open that were closed with arrays about, by their info's id.
_held: dict[int, list[weakref.ref[Any]]] = {}


def _is_held(info: DeviceInfo) -> bool:
    if info.id not in _held:
        return False
    gc.collect()  # arrays that nobody can reach any more
    if any(memory() is not None for memory in _held[info.id]):
        return True
    del _held[info.id]
    return False


class RequestType(enum.IntEnum):
    STANDARD = lib.VEXA_USB_TYPE_STANDARD
    CLASS = lib.VEXA_USB_TYPE_CLASS
    VENDOR = lib.VEXA_USB_TYPE_VENDOR


class Recipient(enum.IntEnum):
    DEVICE = lib.VEXA_USB_RECIPIENT_DEVICE
    INTERFACE = lib.VEXA_USB_RECIPIENT_INTERFACE
    ENDPOINT = lib.VEXA_USB_RECIPIENT_ENDPOINT
    OTHER = lib.VEXA_USB_RECIPIENT_OTHER


@dataclass(frozen=True)
class Descriptor:
    """What the library tells of a device descriptor, under the names of the USB standard."""

    bDeviceClass: int
    bDeviceSubClass: int
    bDeviceProtocol: int
    idVendor: int
    idProduct: int
    bcdDevice: int
    iManufacturer: int
    iProduct: int
    iSerialNumber: int
    bNumConfigurations: int


class Device:
    """Made by Library.open().  Every method can be called from every thread.

    Transfers wait for the device for a second per 512 KiB, and then raise Timeout; a call that is in
    progress when the device is closed is waited for.
    """

    def __init__(self, info: DeviceInfo, record: Any) -> None:
        self.info = info
        self._closed = False
        self._loads: list[Load] = []
        self._stream: Callable[[], Stream | None] = lambda: None
        self._viewed: list[weakref.ref[Any]] = []  # by its last stream
        self._number = lib.bridgeDeviceNew()
        self._handle = ffi.cast("_vexa_usb_device *", self._number)
        if _is_held(info):
            raise BufferError(f"an array still refers to a stream of {info}, which stays open until "
                              "it goes; delete or copy it first")
        check(lib.bridgeOpen(self._number, record), f"open {info}")
        self._opened = True

    _number = 0
    _opened = False

    def __enter__(self) -> Device:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def __del__(self) -> None:
        if self._opened and not self._closed:
            warnings.warn(f"{self.info} was not closed", ResourceWarning, source=self)
        lib.bridgeFree(self._number)

    def close(self) -> None:
        """Ends the stream and the event pipe, and gives the device back.  Harmless when done.

        Calls of other threads that are in progress are waited for, new ones raise Closed; a firmware
        download ends at its next block.
        """
        stream = self._stream()
        if stream is not None:
            stream.close()
        self._closed = True
        while True:
            status = lib.bridgeClose(self._number, 100)
            if status == lib.kBridgeViewed and self.info.id not in _held:
                _held[self.info.id] = self._viewed
                warnings.warn("an array still refers to the stream's buffers: the device stays "
                              "open until it goes", ResourceWarning, stacklevel=2)
            if status != lib.kBridgeBusy:
                return

    # Queries

    def descriptor(self) -> Descriptor:
        raw = ffi.new("_vexa_usb_device_descriptor *")
        check(lib.vexa_usb_get_device_descriptor(self._handle, raw, ffi.sizeof(raw[0])),
              "descriptor")
        return Descriptor(**{name: getattr(raw, name) for name in Descriptor.__annotations__})

    def string(self, index: int, language: int = 0x0409) -> str:
        """A string descriptor, such as the serial number's; empty for index 0."""
        if index == 0:
            return ""
        length = self._string_descriptor(index, language, 2)[0]
        return self._string_descriptor(index, language, length)[2:].decode("utf-16-le", "replace")

    def _string_descriptor(self, index: int, language: int, length: int) -> bytes:
        get_descriptor, string = 6, 3
        return self.control_in(get_descriptor, string << 8 | index, language, length,
                               RequestType.STANDARD)

    @property
    def manufacturer(self) -> str:
        return self.string(self.descriptor().iManufacturer)

    @property
    def product(self) -> str:
        return self.string(self.descriptor().iProduct)

    @property
    def serial_number(self) -> str:
        return self.string(self.descriptor().iSerialNumber)

    def max_packet_size(self, endpoint: int) -> int:
        size = ffi.new("uint16_t *")
        check(lib.vexa_usb_get_max_packet_size(self._handle, endpoint, size),
              f"packet size of {endpoint:#x}")
        return int(size[0])

    def kernel_driver_version(self) -> str:
        """Raises NotSupported: no device of this library has a kernel driver."""
        version = ffi.new("_vexa_usb_version *")
        check(lib.vexa_usb_get_kernel_driver_version(self._handle, version), "driver version")
        return f"{version.major}.{version.minor}.{version.patch}"

    # Transfers

    def control_in(self, request: int, value: int = 0, index: int = 0, length: int = 0,
                   type: RequestType = RequestType.VENDOR,
                   recipient: Recipient = Recipient.DEVICE) -> bytes:
        data = bytearray(length)
        self._control(lib.VEXA_USB_DIRECTION_IN, type, recipient, request, value, index, data)
        return bytes(data)

    def control_out(self, request: int, value: int = 0, index: int = 0, data: Any = b"",
                    type: RequestType = RequestType.VENDOR,
                    recipient: Recipient = Recipient.DEVICE) -> None:
        self._control(lib.VEXA_USB_DIRECTION_OUT, type, recipient, request, value, index, data)

    def _control(self, direction: int, type: int, recipient: int, request: int, value: int,
                 index: int, data: Any) -> None:
        with ffi.from_buffer(data) as raw:
            check(lib.vexa_usb_control_transfer(self._handle, direction, type, recipient, request,
                                                value, index, ffi.cast("uint8_t *", raw),
                                                len(raw)),
                  f"control request {request:#x}")

    def clear_halt(self, endpoint: int) -> None:
        """Ends the halt of an endpoint that has stalled."""
        clear_feature, endpoint_halt = 1, 0
        self.control_out(clear_feature, endpoint_halt, endpoint, b"", RequestType.STANDARD,
                         Recipient.ENDPOINT)

    def bulk_read(self, endpoint: int, length: int) -> bytes:
        return self._read(lib.vexa_usb_bulk_read, endpoint, length)

    def bulk_read_into(self, endpoint: int, buffer: Any) -> None:
        """Fills a writable buffer, such as a numpy array."""
        self._read_into(lib.vexa_usb_bulk_read, endpoint, buffer)

    def bulk_write(self, endpoint: int, data: Any) -> None:
        self._write(lib.vexa_usb_bulk_write, endpoint, data)

    def interrupt_read(self, endpoint: int, length: int) -> bytes:
        return self._read(lib.vexa_usb_interrupt_read, endpoint, length)

    def interrupt_read_into(self, endpoint: int, buffer: Any) -> None:
        self._read_into(lib.vexa_usb_interrupt_read, endpoint, buffer)

    def interrupt_write(self, endpoint: int, data: Any) -> None:
        self._write(lib.vexa_usb_interrupt_write, endpoint, data)

    def _read(self, function: Any, endpoint: int, length: int) -> bytes:
        data = bytearray(length)
        self._read_into(function, endpoint, data)
        return bytes(data)

    def _read_into(self, function: Any, endpoint: int, buffer: Any) -> None:
        with ffi.from_buffer("uint8_t[]", buffer, require_writable=True) as raw:
            check(function(self._handle, endpoint, raw, len(raw)), f"read from {endpoint:#x}")

    def _write(self, function: Any, endpoint: int, data: Any) -> None:
        with ffi.from_buffer("uint8_t[]", data) as raw:
            check(function(self._handle, endpoint, raw, len(raw)), f"write to {endpoint:#x}")

    # Events and streams

    def enable_events(self, endpoint: int) -> None:
        """From now on every byte that the device sends there is an event.  Once for each opening."""
        check(lib.vexa_usb_event_pipe_enable(self._handle, endpoint), f"event pipe {endpoint:#x}")

    def disable_events(self) -> None:
        check(lib.vexa_usb_event_pipe_disable(self._handle), "event pipe")

    def events(self, timeout: float | None = None) -> Events:
        """The events, for `for` and `async for`; kept without limit until they are taken."""
        return Events(self, timeout)

    @property
    def stream_memory_max(self) -> int:
        """The largest product of a stream's buffer size and count that is advised."""
        return self._limit(lib.vexa_usb_data_stream_memory_size_max)

    @property
    def stream_rate_max(self) -> int:
        """The highest stream rate that the device's USB version is good for, in bytes a second."""
        return self._limit(lib.vexa_usb_data_stream_rate_max)

    def _limit(self, function: Any) -> int:
        value = ffi.new("uint64_t *")
        check(function(self._handle, value), "stream limits")
        return int(value[0])

    def stream(self, endpoint: int, buffer_size: int = 1 << 20, buffer_count: int = 16, *,
               strict: bool = True, timeout: float | None = None) -> Stream:
        """Starts to stream into a ring of buffers; see Stream.

        A strict stream raises StreamError at its first gap.  With `strict=False` data that are lost
        on the bus leave a gap that nobody is told of.  With a timeout, a device that is silent for
        that long raises Timeout.
        """
        stream = Stream(self, endpoint, buffer_size, buffer_count, strict, timeout)
        self._stream = weakref.ref(stream)
        self._viewed = stream.viewed
        return stream

    # Firmware

    def fx2_reset(self) -> None:
        self._load("FX2 reset", lambda: lib.vexa_usb_fx2_reset(self._handle), None)

    def fx2_renumerate(self) -> None:
        check(lib.vexa_usb_fx2_renumerate(self._handle), "FX2 renumeration")

    def fx2_load(self, records: bytes, progress: Progress | None = None) -> None:
        """Loads Intel HEX records in binary, as `vexa-usb hex --binary` makes them."""
        self._load_image("FX2", lib.vexa_usb_fx2_load_firmware, records, progress)

    def fx3_load(self, image: bytes, progress: Progress | None = None) -> None:
        """Loads an FX3 boot image."""
        if len(image) % 4 != 0:
            raise InvalidParameters("FX3: the image's size is no multiple of 4")
        words = ffi.new("uint32_t[]", len(image) // 4)  # aligned, as bytes need not be
        ffi.memmove(words, image, len(image))
        self._load("FX3", lambda: lib.vexa_usb_fx3_load_firmware(self._handle, words, len(words)),
                   progress)

    def dfu_download(self, image: bytes, progress: Progress | None = None) -> None:
        """Downloads by USB DFU 1.1; `progress` hears of each block."""
        raw = ffi.from_buffer("uint8_t[]", image)
        self._load("DFU", lambda: lib.bridgeDfuDownload(self._number, raw, len(raw)), progress)

    def imx7_load_spl(self, image: bytes, progress: Progress | None = None) -> None:
        self._load_image("i.MX7 SPL", lib.vexa_usb_imx7_load_firmware_spl, image, progress)

    def imx7_load_uboot(self, image: bytes, progress: Progress | None = None) -> None:
        self._load_image("i.MX7 U-Boot", lib.vexa_usb_imx7_load_firmware_uboot, image, progress)

    def lpc4370_load(self, image: bytes, progress: Progress | None = None) -> None:
        """Raises NotSupported."""
        self._load_image("LPC4370", lib.vexa_usb_lpc4370_load_firmware, image, progress)

    def _load_image(self, what: str, function: Any, image: bytes,
                    progress: Progress | None) -> None:
        raw = ffi.from_buffer("uint8_t[]", image)
        self._load(what, lambda: function(self._handle, raw, len(raw)), progress)

    def _load(self, what: str, call: Callable[[], Any], progress: Progress | None) -> None:
        """An exception here, from `progress` too, closes the device: a download ends at its next
        block, other loads run to their end."""
        load = Load(what, self._number, call, self._loads)
        try:
            load.run(progress)
        except BaseException as error:
            if not load.call_off():
                error.add_note(f"{what}: the load was ended and the device closed; it may need to be "
                               "plugged in again before another load")
                self.close()
            raise
        if isinstance(load.results[0], BaseException):
            raise load.results[0]
        check(load.results[0], what)
        if progress is not None and load.done < 1:
            progress(1.0)
