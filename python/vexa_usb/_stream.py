"""A data stream, read in place."""
from __future__ import annotations

import asyncio
import gc
import threading
import warnings
import weakref
from types import TracebackType
from typing import TYPE_CHECKING, Any

from ._errors import Closed, DeviceRemoved, StreamError, check
from ._native import ffi, lib
from ._source import Source

if TYPE_CHECKING:
    from ._device import Device

_REMOVAL_MS = 500  # how long after its stream's error a device that leaves is known to have left


class Stream(Source[memoryview]):
    """Buffers full of data, each a read-only memoryview of the ring itself.

    A view is valid until the next step, which gives its buffer back to be filled again, and until
    the stream is closed.  The view itself then raises ValueError; an array that was made from it
    (`numpy.frombuffer`) cannot be told and shows what comes next.  Copy what is to be kept: an array
    that is still there a whole step later ends the loop with BufferError.

    Memory that an array refers to is never freed under it: a stream, or a device, that is closed
    with such an array about (ResourceWarning) ends when that array goes.
    """

    _what = lib.kBridgeStream

    def __init__(self, device: Device, endpoint: int, buffer_size: int, buffer_count: int,
                 strict: bool, timeout: float | None) -> None:
        super().__init__(device._number, timeout)
        self._device = device  # not closed while its stream is used
        self._name = f"stream from {endpoint:#x}"
        self._lock = threading.Lock()
        self._view: memoryview | None = None
        self.viewed: list[weakref.ref[Any]] = []  # what keeps each view's memory, oldest first
        self._data = ffi.new("uint8_t **")
        self._size = ffi.new("uint64_t *")
        arguments = (device._number, endpoint, buffer_size, buffer_count, strict)
        status = lib.bridgeStreamStart(*arguments)
        if status == lib.kBridgeViewed:
            gc.collect()  # arrays that nobody can reach any more
            status = lib.bridgeStreamStart(*arguments)
        if status == lib.kBridgeViewed:
            raise BufferError("an array still refers to the buffers of the stream before this one; "
                              "delete or copy it first")
        check(status, self._name)
        self._closed = False

    _closed = True

    def __del__(self) -> None:
        self.close()

    def __enter__(self) -> Stream:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Stops the stream.  Harmless when that was done; also done when nothing refers to it."""
        if self._closed:
            return
        with self._lock:
            if self._closed:
                return
            self._closed = True
            self._let_go()
            if lib.bridgeStreamStop(self._number) == lib.kBridgeViewed:
                warnings.warn("an array still refers to the stream's buffers: the device streams "
                              "on until they are full, and they are freed when the array goes",
                              ResourceWarning, stacklevel=3)

    def _let_go(self) -> None:
        if self._view is not None:
            try:
                self._view.release()
            except BufferError:
                pass  # an array keeps the memory
            self._view = None
        # One that went after one that is still there stays, so that the latter is seen to be old.
        while self.viewed and self.viewed[0]() is None:
            del self.viewed[0]

    def get(self, timeout: float | None = None) -> memoryview:
        """The next buffer, waited for that many seconds, or without end."""
        try:
            return super().get(timeout)
        except StreamError:
            raise self._failure() from None

    async def aget(self, timeout: float | None = None) -> memoryview:
        """As get(), in asyncio's loop.  Nothing is lost when it is cancelled."""
        try:
            return await super().aget(timeout)
        except StreamError:
            raise await asyncio.to_thread(self._failure) from None  # waits

    def _take(self) -> memoryview | None:
        with self._lock:
            if self._closed:
                raise Closed(self._name)
            self._let_go()
            if len(self.viewed) > 1:
                raise BufferError("an array still refers to a buffer that was given back a step "
                                  "ago; copy what you keep")
            status = lib.bridgeStreamNext(self._number, self._data, self._size)
            if status == lib.VEXA_USB_STATUS_SUCCESS:
                return self._show()
        if status == lib.kBridgeEmpty:
            return None
        if status == lib.kBridgeStreamFailed:
            raise StreamError(self._name)
        check(status, self._name)
        return None

    def _show(self) -> memoryview:
        memory = ffi.gc(self._data[0], lib.bridgeViewGone)
        view = self._view = memoryview(ffi.buffer(memory, self._size[0])).toreadonly()
        lib.bridgeStreamViewed(self._number)
        self.viewed.append(weakref.ref(memory))
        return view

    def _failure(self) -> Exception:
        # At an unplug the stream's error comes first.
        if lib.bridgeIsRemoved(self._number, _REMOVAL_MS):
            return DeviceRemoved(self._name)
        return StreamError(self._name)
