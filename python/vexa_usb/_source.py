"""What can be waited for: by a thread, or by a task of asyncio."""
from __future__ import annotations

import asyncio
import os
import time
from typing import Generic, TypeVar

from ._errors import Closed, Timeout
from ._native import lib

Item = TypeVar("Item")


class Source(Generic[Item]):
    """Items that come one after the other, for `for` and for `async for`.

    Several threads and tasks may take from one source; each item goes to one of them.
    """

    _what: int = lib.kBridgeEvents

    def __init__(self, number: int, timeout: float | None = None) -> None:
        self._number = number
        self.timeout = timeout
        """How long the next item may take, in seconds; without end by default."""

    def _take(self) -> Item | None:
        """The next item, None while there is none; an error at the end."""
        raise NotImplementedError

    def __iter__(self) -> Source[Item]:
        return self

    def __next__(self) -> Item:
        return self.get(self.timeout)

    def get(self, timeout: float | None = None) -> Item:
        """The next item, waited for that many seconds, or without end."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while (item := self._take()) is None:
            left = -1
            if deadline is not None:
                left = round(min(max(0.0, deadline - time.monotonic()) * 1000, 2**31 - 1))
            # Also returns on a signal, whose handler Python calls before it goes on.
            if lib.bridgeWait(self._number, self._what, left) == lib.kBridgeTimedOut:
                raise Timeout(f"nothing came for {timeout} s")
        return item

    def __aiter__(self) -> Source[Item]:
        return self

    async def __anext__(self) -> Item:
        return await self.aget(self.timeout)

    async def aget(self, timeout: float | None = None) -> Item:
        """As get(), in asyncio's loop.  Nothing is lost when it is cancelled."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while (item := self._take()) is None:
            left = None if deadline is None else max(0.0, deadline - time.monotonic())
            try:
                await asyncio.wait_for(self._ready(), left)
            except asyncio.TimeoutError:
                raise Timeout(f"nothing came for {timeout} s") from None
        return item

    async def _ready(self) -> None:
        loop = asyncio.get_running_loop()
        # A descriptor of its own: others may wait for the same source, in this loop too.
        descriptor = lib.bridgeDuplicate(self._number, self._what)
        if descriptor == lib.kBridgeClosed:
            raise Closed("what was waited for")
        if descriptor < 0:
            raise OSError(-descriptor, os.strerror(-descriptor))
        ready = loop.create_future()

        def tell() -> None:
            if not ready.done():
                ready.set_result(None)

        loop.add_reader(descriptor, tell)
        try:
            await ready
        finally:
            loop.remove_reader(descriptor)
            os.close(descriptor)
