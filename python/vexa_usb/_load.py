"""A firmware load, on a thread of its own."""
from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

from ._errors import InvalidParameters
from ._native import lib

Progress = Callable[[float], object]


class Load:
    """One load of a device, whose caller's thread stays free for the progress and for Ctrl-C.

    `loads` are the device's; only the first of them runs.  A load begins unless it is called off
    before, and is among them until its call has returned.  What is shared with its thread are
    lists, since nothing can come between the steps of one change to a list, not even Ctrl-C.
    """

    def __init__(self, device_number: int, call: Callable[[], Any], loads: list[Load]) -> None:
        self.results: list[Any] = []  # what the call returned or raised
        self.done = 0.0  # as last heard of
        self._number = device_number
        self._call = call
        self._loads = loads
        self._decision = [None]  # whether it begins is up to who takes it

    def run(self, progress: Progress | None) -> None:
        """Returns when the call has.  After an exception, from `progress` too, call it off."""
        self._loads.append(self)
        if self._loads[0] is not self:
            raise InvalidParameters("this device is just being loaded")
        lib.bridgeProgress(self._number)  # of an earlier load
        thread = threading.Thread(target=self._work, name="vexa-usb-load", daemon=True)
        thread.start()
        while not self.results:
            # Also returns on a signal, whose handler Python calls before it goes on.
            if lib.bridgeWait(self._number, lib.kBridgeLoad, -1) == lib.kBridgeReady:
                heard = lib.bridgeProgress(self._number)
                if progress is not None and not self.results:
                    self.done = heard
                    progress(heard)
        thread.join()  # it has yet to leave

    def call_off(self) -> bool:
        """False when it has begun, and goes on."""
        if not self._decides():
            return False
        self._leave()
        return True

    def _decides(self) -> bool:
        try:
            self._decision.pop()
        except IndexError:
            return False
        return True

    def _leave(self) -> None:
        if self in self._loads:
            self._loads.remove(self)

    def _work(self) -> None:
        if not self._decides():
            return
        try:
            self.results.append(self._call())
        except BaseException as error:
            self.results.append(error)
        finally:
            self._leave()
            lib.bridgeLoadEnded(self._number)
