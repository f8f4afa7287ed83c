"""The library's statuses as exceptions."""
from __future__ import annotations

from ._native import ffi, lib


def status_text(status: int) -> str:
    """The library's text of a status; empty for a number that is none."""
    return str(ffi.string(lib.vexa_usb_get_status_str(status)).decode())


class Error(Exception):
    """Something failed.  `status` is what the library answered."""

    status: int = lib.VEXA_USB_STATUS_UNKNOWN
    advice: str = ""

    def __init__(self, what: str = "") -> None:
        text = f"{status_text(self.status)} ({self.status})"
        super().__init__((f"{what}: {text}" if what else text) +
                         (f"; {self.advice}" if self.advice else ""))


class Unknown(Error):
    """A USB error, for instance a stall, or a device that could not be opened."""

    advice = "VEXA_USB_LOG=error in the environment has the library say why"


class NoDevice(Unknown, LookupError):
    """There is no such device."""

    advice = "plug one in; `vexa-usb list` shows what there is"


class NotSupported(Error):
    status: int = lib.VEXA_USB_STATUS_NOT_SUPPORTED


class NotInitialized(Error):
    status: int = lib.VEXA_USB_STATUS_NOT_INITIALIZED
    advice = "the interpreter is ending"


class NoMemory(Error, MemoryError):
    status: int = lib.VEXA_USB_STATUS_NO_MEMORY


class InvalidParameters(Error, ValueError):
    status: int = lib.VEXA_USB_STATUS_INVALID_PARAMETERS


class Closed(InvalidParameters):
    """The object was closed, perhaps by another thread while this one waited."""

    def __init__(self, what: str) -> None:
        Exception.__init__(self, f"{what} is closed")


class EventPipeNotActive(Error):
    status: int = lib.VEXA_USB_STATUS_EVENT_PIPE_NOT_ACTIVE


class EventPipeActive(Error):
    """The event pipe can be enabled once for each opened device."""

    status: int = lib.VEXA_USB_STATUS_EVENT_PIPE_ACTIVE
    advice = "close and open the device to enable it again"


class StreamBufferActive(Error):
    status: int = lib.VEXA_USB_STATUS_STREAM_BUFFER_ACTIVE
    advice = "close the stream that the device has"


class StreamBufferNotActive(Error):
    status: int = lib.VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE


class EndpointNotSupported(Error):
    status: int = lib.VEXA_USB_STATUS_ENDPOINT_NOT_SUPPORTED


class InvalidEndpointDirection(Error, ValueError):
    """Bit 7 of the endpoint's address (0x80) is set for IN and clear for OUT."""

    status: int = lib.VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION


class DeviceRemoved(Error):
    """The device has left the bus."""

    status: int = lib.VEXA_USB_STATUS_DEVICE_REMOVED
    advice = "close it, and open the device that comes back"


class Timeout(Error, TimeoutError):
    status: int = lib.VEXA_USB_STATUS_TIMEOUT


class NotAllDataTransferred(Error):
    """The device sent or took less than it was asked for."""

    status: int = lib.VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED


class DataStreamBufferEmpty(Error):
    status: int = lib.VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY


class StreamError(Error):
    """The stream has ended: its ring was full, or (when it is strict) data were lost on the bus."""

    advice = "use more or larger buffers, if the reader was too slow; VEXA_USB_LOG=error tells why"

    def __init__(self, what: str) -> None:
        Exception.__init__(self, f"{what}: the stream could not go on; {self.advice}")


_BY_STATUS = {kind.status: kind for kind in (
    Unknown, NotSupported, NotInitialized, NoMemory, InvalidParameters, EventPipeNotActive,
    EventPipeActive, StreamBufferActive, StreamBufferNotActive, EndpointNotSupported,
    InvalidEndpointDirection, DeviceRemoved, Timeout, NotAllDataTransferred,
    DataStreamBufferEmpty)}


def check(status: int, what: str) -> None:
    """Raises what a status stands for."""
    if status == lib.VEXA_USB_STATUS_SUCCESS:
        return
    if status == lib.kBridgeClosed:
        raise Closed(what)
    reason = ffi.string(lib.bridgeException()).decode()
    raise _BY_STATUS[status](f"{what}: {reason}" if reason else what)
