#!/usr/bin/env python3
"""Plots a stream and its spectrum, live: what endpoint 0x82 sends, as signed 16-bit samples.

With --png FILE it draws one picture instead, without a display."""
import argparse
import time

import numpy
import numpy.typing
import vexa_usb

TRACE, WINDOW = 400, 4096  # samples


def spectrum(samples: numpy.typing.NDArray[numpy.int16]) -> numpy.typing.NDArray[numpy.float64]:
    """Power of each frequency, in dB below full scale, averaged over windows."""
    windows = samples[:len(samples) // WINDOW * WINDOW].reshape(-1, WINDOW) / 32768
    power = numpy.abs(numpy.fft.rfft(windows * numpy.hanning(WINDOW))) ** 2
    full_scale = (WINDOW / 4) ** 2
    decibel: numpy.typing.NDArray[numpy.float64] = 10 * numpy.log10(
        power.mean(axis=0) / full_scale + 1e-20)
    return decibel


class Scope:
    def __init__(self, rate: float) -> None:
        from matplotlib import pyplot
        self.figure, (above, below) = pyplot.subplots(2, 1, figsize=(9, 6), layout="constrained")
        milliseconds = numpy.arange(TRACE) / rate * 1000
        self.trace, = above.plot(milliseconds, numpy.zeros(TRACE), linewidth=0.8)
        above.set(xlabel="ms", ylabel="sample", ylim=(-32768, 32767), xlim=(0, milliseconds[-1]))
        frequencies = numpy.fft.rfftfreq(WINDOW, 1 / rate) / 1000
        self.spectrum, = below.plot(frequencies, numpy.zeros(len(frequencies)), linewidth=0.8)
        below.set(xlabel="kHz", ylabel="dB of full scale", ylim=(-120, 0),
                  xlim=(0, frequencies[-1]))
        for axes in (above, below):
            axes.grid(alpha=0.3)

    def is_open(self) -> bool:
        from matplotlib import pyplot
        return bool(pyplot.fignum_exists(self.figure.number))

    def show(self, samples: numpy.typing.NDArray[numpy.int16], title: str) -> None:
        self.trace.set_ydata(samples[:TRACE].copy())  # the buffer is given back
        self.spectrum.set_ydata(spectrum(samples))
        self.figure.suptitle(title)


parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("--rate", type=float, default=1e6, help="samples a second (default 1e6)")
parser.add_argument("--png", metavar="FILE", help="draw one picture, without a display")
arguments = parser.parse_args()
if arguments.png:
    import matplotlib
    matplotlib.use("agg")
scope = Scope(arguments.rate)
if not arguments.png:
    scope.figure.show()
with vexa_usb.Library() as library, library.open() as device, \
        device.stream(0x82, 1 << 20, 64, timeout=5) as stream:
    drawn = begun = time.monotonic()
    for number, view in enumerate(stream, 1):
        now = time.monotonic()
        if not arguments.png and now - drawn < 0.05:
            continue  # faster than anybody can look
        drawn = now
        rate = number * len(view) / 1e6 / (now - begun)
        scope.show(numpy.frombuffer(view, dtype="<i2"),
                   f"{device.info.vendor_id:04x}:{device.info.product_id:04x}, {rate:.0f} MB/s")
        if arguments.png:
            break
        scope.figure.canvas.draw_idle()
        scope.figure.canvas.flush_events()
        if not scope.is_open():
            break
if arguments.png:
    scope.figure.savefig(arguments.png, dpi=120)
