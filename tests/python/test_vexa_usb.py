"""The Python package on a real kernel: run by tests/python/run inside the virtual machine."""
import asyncio
import gc
import os
import re
import signal
import struct
import subprocess
import sys
import threading
import time
import warnings

import numpy
import pytest

import vexa_usb
from vexa_usb._native import lib

TOP = os.path.dirname(os.path.abspath(__file__)) + "/../.."
sys.path.append(TOP + "/tests/system")
from firmware_images import fx3  # noqa: E402
from imx7_image import spl  # noqa: E402

STREAM, EVENTS, SCRATCH, SEEK, SEND, STALL, SHORT, SILENCE, VANISH = 0x82, 0x81, 1, 2, 3, 4, 5, 6, 8
SIMULATOR = os.environ["VEXA_BUILD_DIR"] + "/release/vexa-usb-sim"
pytestmark = pytest.mark.filterwarnings("error")


class Simulator:
    def __init__(self, library, *devices):
        self.library = library
        self.process = subprocess.Popen([SIMULATOR, "--port", "0", "--attach", *devices],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait(len(devices))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        self.wait(0)

    def wait(self, count):
        deadline = time.monotonic() + 20
        while len(self.library.devices()) != count:
            assert time.monotonic() < deadline, self.library.devices()
            time.sleep(0.02)


@pytest.fixture(scope="module")
def library():
    with vexa_usb.Library() as library:
        yield library


@pytest.fixture(scope="module")
def instrument(library):
    with Simulator(library, "instrument,speed=super,serial=XYZ") as simulator:
        yield simulator


@pytest.fixture
def device(library, instrument):
    instrument.wait(1)
    with library.open() as device:
        device.control_out(SEEK, data=bytes(8))
        yield device


def pattern(position, size):
    words = numpy.arange(position // 8 + 1, (position + size) // 8 + 1, dtype=numpy.uint64)
    return words * numpy.uint64(0x9E3779B97F4A7C15)


def test_nothing_of_the_library_is_left_out():
    with open(TOP + "/include/vexa_usb.h") as file:
        functions = re.findall(r"(?m)^VEXA_USB_API [^;(]*?(\w+)\(", file.read())
    sources = "".join(open(f"{TOP}/python/{name}").read() for name in (
        "native/bridge.cpp", "vexa_usb/_device.py", "vexa_usb/_errors.py", "vexa_usb/_library.py"))
    assert len(functions) == 35
    assert [name for name in functions if name + "(" not in sources and "lib." + name not in sources
            ] == []
    statuses = {getattr(lib, name) for name in dir(lib) if name.startswith("VEXA_USB_STATUS_")}
    kinds = [kind for kind in vars(vexa_usb).values()
             if isinstance(kind, type) and issubclass(kind, vexa_usb.Error)]
    assert statuses - {kind.status for kind in kinds} == {0}


def test_transfers(device):
    device.control_out(SCRATCH, data=b"abc")
    assert device.control_in(SCRATCH, length=3) == b"abc"
    assert (device.serial_number, device.max_packet_size(STREAM)) == ("XYZ", 1024)
    assert device.descriptor().idVendor == vexa_usb.VENDOR_ID == device.info.vendor_id
    sent = numpy.arange(50000, dtype=numpy.uint16)
    received = numpy.zeros_like(sent)
    device.bulk_write(3, sent)
    device.bulk_read_into(0x83, received)
    assert (sent == received).all()
    device.interrupt_write(4, b"xyz")
    assert device.interrupt_read(0x84, 3) == b"xyz"
    for kind, call in [
            (vexa_usb.NotAllDataTransferred, lambda: device.control_in(SCRATCH, length=4)),
            (vexa_usb.Unknown, lambda: device.control_out(0x7F)),
            (vexa_usb.Timeout, lambda: device.bulk_read(0x83, 1)),
            (vexa_usb.InvalidEndpointDirection, lambda: device.bulk_read(3, 1)),
            (vexa_usb.InvalidParameters, lambda: device.bulk_write(3, b"")),
            (vexa_usb.EndpointNotSupported, lambda: device.max_packet_size(0x8F)),
            (vexa_usb.EventPipeNotActive, device.disable_events),
            (vexa_usb.NotSupported, device.kernel_driver_version),
            (vexa_usb.NotSupported, lambda: device.lpc4370_load(b"x")),
            (OverflowError, lambda: device.control_in(256)),
            (BufferError, lambda: device.bulk_read_into(0x83, b"fixed")),
            (TimeoutError, lambda: next(device.events(timeout=0.01)))]:
        with pytest.raises(kind) as raised:
            call()
    device.control_out(STALL, 1, 0x83)
    with pytest.raises(vexa_usb.Unknown):
        device.bulk_read(0x83, 1)
    device.clear_halt(0x83)
    device.bulk_write(3, b"q")
    assert device.bulk_read(0x83, 1) == b"q"
    device.close()
    device.close()
    with pytest.raises(vexa_usb.Closed, match="closed") as raised:
        device.bulk_read(0x83, 1)
    assert raised.value.status == lib.VEXA_USB_STATUS_INVALID_PARAMETERS


def test_stream_in_place(device):
    position = 0
    with device.stream(STREAM, 1000000, 8) as stream:
        with pytest.raises(vexa_usb.StreamBufferActive):
            device.stream(STREAM)
        for view in stream:
            array = numpy.frombuffer(view, dtype=numpy.uint64)
            assert not array.flags.writeable
            assert (array == pattern(position, len(view))).all()
            position += len(view)
            if position == 20000000:
                break
        del array
        kept = []
        with pytest.raises(BufferError, match="copy"):
            for view in stream:
                kept.append(numpy.frombuffer(view, dtype=numpy.uint8))
        assert len(kept) == 2
        del kept[:]
        last = next(stream)
    for call in (lambda: next(stream), lambda: last[0]):
        with pytest.raises(ValueError):
            call()


def test_memory_outlives_the_stream_for_an_array(library, device):
    stream = device.stream(STREAM, 1 << 20, 4)
    array = numpy.frombuffer(next(stream), dtype=numpy.uint64)
    with pytest.warns(ResourceWarning, match="array"):
        stream.close()
    with pytest.raises(BufferError):
        device.stream(STREAM)
    assert (array == pattern(0, 1 << 20)).all()
    del array
    with device.stream(STREAM, 1 << 20, 4) as stream:
        array = numpy.frombuffer(next(stream), dtype=numpy.uint64)
        with pytest.warns(ResourceWarning):
            device.close()
        before = array.copy()
        with pytest.raises(vexa_usb.Closed):
            next(stream)
        assert (array == before).all()
    del array
    with library.open() as device, device.stream(STREAM) as stream:
        assert len(next(stream)) == 1 << 20


def test_stream_ends_with_a_reason(device, instrument):
    device.control_out(SHORT, 100, STREAM)
    with device.stream(STREAM) as stream, pytest.raises(vexa_usb.StreamError, match="buffers"):
        for _ in stream:
            pass
    device.control_out(SILENCE, 1, STREAM)
    with device.stream(STREAM, timeout=0.2) as stream, pytest.raises(vexa_usb.Timeout):
        for _ in stream:
            pass
    stream = device.stream(STREAM)
    threading.Timer(0.2, stream.close).start()
    with pytest.raises(vexa_usb.Closed):
        next(stream)
    stream = device.stream(STREAM)
    threading.Timer(0.2, device.close).start()
    with pytest.raises(vexa_usb.Closed):
        next(stream)


def test_unplug(library, instrument):
    instrument.wait(1)
    with library.watch(timeout=10) as changes, library.open() as device:
        device.control_out(SILENCE, 0, STREAM)
        device.control_out(VANISH, data=struct.pack("<QIHH", 5 << 20, 100, 0, 0))
        with device.stream(STREAM) as stream, pytest.raises(vexa_usb.DeviceRemoved):
            for _ in stream:
                pass
        assert vexa_usb.DeviceEvent.REMOVED in list(device.events(timeout=5))
        with pytest.raises(vexa_usb.DeviceRemoved):
            device.bulk_write(3, b"x")
        assert next(changes) == vexa_usb.Change(vexa_usb.ChangeType.REMOVED, device.info)
        added = next(changes)
        with pytest.raises(vexa_usb.NoDevice):
            library.open(device.info)
        with library.open(added.device) as again:
            assert again.info.id != device.info.id


def test_asyncio(library, instrument):
    async def events(device, count):
        taken = []
        async for event in device.events(timeout=10):
            taken.append(event)
            if len(taken) == count:
                return taken

    async def main():
        with library.open() as device, library.watch() as changes:
            waiting = asyncio.ensure_future(events(device, 100))
            await asyncio.sleep(0.05)
            waiting.cancel()
            device.enable_events(EVENTS)
            tasks = [asyncio.ensure_future(events(device, 4)) for _ in range(2)]
            device.control_out(SEND, data=b"\x10\x00\xff\x04\x05\x01\x02\x03")
            assert sorted(sum(await asyncio.gather(*tasks), [])) == [0, 1, 2, 3, 4, 5, 16, 255]
            with pytest.raises(vexa_usb.Timeout):
                await changes.aget(0.01)
            position = 0
            device.control_out(SEEK, data=bytes(8))
            with device.stream(STREAM, 1 << 18, 8) as stream:
                async for view in stream:
                    assert bytes(view[:8]) == pattern(position, 8).tobytes()
                    position += len(view)
                    if position == 1 << 22:
                        break
            device.control_out(VANISH, data=struct.pack("<QIHH", 0, 100, 0, 10))
            change = await changes.aget(10)
            assert change.type == vexa_usb.ChangeType.REMOVED
            types = [event async for event in device.events()]
            assert types == [257, 258, vexa_usb.DeviceEvent.REMOVED]
            listening = asyncio.ensure_future(anext(changes))
            await listening
            device.close()
            with pytest.raises(vexa_usb.Closed):
                await anext(device.events())
    asyncio.run(main())


def test_firmware(library):
    with Simulator(library, "dfu,linger=60000"):
        image = os.urandom(200000)
        heard = []
        with library.open() as device:
            device.dfu_download(image, heard.append)
        assert heard == sorted(heard) and len(heard) > 10 and heard[-1] == 1
    with Simulator(library, "dfu"):
        def fail(done):
            if done > 0.5:
                raise RuntimeError("enough")
        device = library.open()
        with pytest.raises(RuntimeError, match="enough") as raised:
            device.dfu_download(image, fail)
        assert "plugged in" in raised.value.__notes__[0]
        with pytest.raises(vexa_usb.Closed):
            device.descriptor()
    with open(TOP + "/examples/fx2_renumerate.hex") as file:
        records = b"".join(bytes.fromhex(line[1:]) for line in file.read().split())
    with Simulator(library, "fx2"):
        with library.open() as device:
            for wrong in (records[:-1], b"\1\0\0\0\0\0"):
                with pytest.raises(vexa_usb.InvalidParameters):
                    device.fx2_load(wrong)
            device.fx2_load(records, heard.append)
    for kind, load, image in (("fx3", vexa_usb.Device.fx3_load, fx3()),
                              ("imx7", vexa_usb.Device.imx7_load_spl, spl(2000))):
        with Simulator(library, kind):
            with library.open() as device:
                load(device, image)


START = """
import vexa_usb, threading, time, sys, numpy, os
library = vexa_usb.Library()
device = library.open()
print("ready", flush=True)
"""
ENDLESS = {
    "stream": "device.control_out(6, 1, 0x82)\nfor view in device.stream(0x82): pass",
    "full speed": "for view in device.stream(0x82): numpy.frombuffer(view).sum()",
    "events": "for event in device.events(): pass",
    "watch": "for change in library.watch(): pass",
    "read": "while True:\n  try: device.bulk_read(0x83, 1)\n  except vexa_usb.Timeout: pass",
    "asyncio": "import asyncio\nasync def main():\n  async for e in device.events(): pass\n"
               "asyncio.run(main())"}


@pytest.mark.parametrize("what", ENDLESS)
def test_control_c_and_exit(instrument, what):
    """Each endless wait, ended by Ctrl-C; then as a daemon thread of an interpreter that ends."""
    instrument.wait(1)
    program = subprocess.Popen([sys.executable, "-c", START + ENDLESS[what]], text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    program.stdout.readline()
    time.sleep(0.5)
    program.send_signal(signal.SIGINT)
    errors = program.communicate(timeout=10)[1]
    assert program.returncode == -signal.SIGINT and "KeyboardInterrupt" in errors, errors
    script = START + f"threading.Thread(target=exec, args=({ENDLESS[what]!r}, globals()), " \
        "daemon=True).start()\ntime.sleep(0.5)\nsys.exit(7)"
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=20)
    assert done.returncode == 7 and "terminate" not in done.stderr, done
