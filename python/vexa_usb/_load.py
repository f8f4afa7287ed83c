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

    `loads` are the device's: one at a time runs, the first that was not called off.  Lists hold what
    is shared between threads: Ctrl-C can come after an append, but not in the middle of one.
    """

    def __init__(self, what: str, device_number: int, call: Callable[[], Any],
                 loads: list[Load]) -> None:
        self.results: list[Any] = []  # what the call returned or raised
        self.done = 0.0  # as last heard of
        self._what = what
        self._number = device_number
        self._call = call
        self._loads = loads
        self._decisions: list[str] = []  # only the first one counts

    def run(self, progress: Progress | None) -> None:
        """Returns when the call has.  After an exception, from `progress` too, call it off."""
        self._loads.append(self)
        if next(load for load in self._loads[:] if not load._is_off()) is not self:
            raise InvalidParameters(f"{self._what}: this device is just being loaded")
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
        self._decisions.append("off")
        if self._is_off():
            self._leave()
        return self._is_off()

    def _is_off(self) -> bool:
        return self._decisions[:1] == ["off"]

    def _leave(self) -> None:
        if self in self._loads:
            self._loads.remove(self)

    def _work(self) -> None:
        self._decisions.append("begins")
        if self._is_off():
            return
        try:
            self.results.append(self._call())
        except BaseException as error:
            self.results.append(error)
        finally:
            lib.bridgeLoadEnded(self._number)  # before the next load may begin
            self._leave()
