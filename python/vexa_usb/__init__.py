"""Access to a family of USB instruments: device list, transfers, events, data streams, firmware.

    import vexa_usb

    with vexa_usb.Library() as library, library.open() as device:
        with device.stream(0x82) as stream:
            for view in stream:         # a memoryview of the ring, valid until the next step
                ...
"""
from ._device import Descriptor, Device, Recipient, RequestType
from ._errors import (Closed, DataStreamBufferEmpty, DeviceRemoved, EndpointNotSupported, Error,
                      EventPipeActive, EventPipeNotActive, InvalidEndpointDirection,
                      InvalidParameters, NoDevice, NoMemory, NotAllDataTransferred, NotInitialized,
                      NotSupported, StreamBufferActive, StreamBufferNotActive, StreamError,
                      Timeout, Unknown, status_text)
from ._events import Change, Changes, ChangeType, DeviceEvent, DeviceInfo, Events
from ._library import Library, Version, version
from ._native import lib as _lib
from ._stream import Stream

VENDOR_ID: int = _lib.VEXA_USB_VENDOR_ID
"""The instruments' vendor identifier."""

__all__ = [
    "Change", "ChangeType", "Changes", "Closed", "DataStreamBufferEmpty", "Descriptor", "Device",
    "DeviceEvent", "DeviceInfo", "DeviceRemoved", "EndpointNotSupported", "Error",
    "EventPipeActive", "EventPipeNotActive", "Events", "InvalidEndpointDirection",
    "InvalidParameters", "Library", "NoDevice", "NoMemory", "NotAllDataTransferred",
    "NotInitialized", "NotSupported", "Recipient", "RequestType", "Stream", "StreamBufferActive",
    "StreamBufferNotActive", "StreamError", "Timeout", "Unknown", "VENDOR_ID", "Version",
    "status_text", "version",
]
