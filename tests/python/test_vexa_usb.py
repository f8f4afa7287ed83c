"""The Python package on a real kernel: run by tests/python/run inside the virtual machine."""
import asyncio
import atexit
import json
import os
import pathlib
import re
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

import numpy
import pytest

import vexa_usb
from vexa_usb._native import lib

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(TOP / "tests/system"))
from firmware_images import fx3  # noqa: E402
from imx7_image import spl  # noqa: E402

STREAM, EVENTS, SCRATCH, SEEK, SEND, STALL, SHORT, SILENCE, VANISH = 0x82, 0x81, 1, 2, 3, 4, 5, 6, 8
BUILD = os.environ["VEXA_BUILD_DIR"] + "/release"
FORKS, PLOTTER = (subprocess.Popen([sys.executable, TOP / "tests/python/forks.py", "vexa_usb", name],
                                   text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                  for name in ("asyncio", "matplotlib.pyplot"))
atexit.register(FORKS.communicate)
atexit.register(PLOTTER.communicate)
pytestmark = pytest.mark.filterwarnings("error")


class Simulator:
    def __init__(self, library, *devices):
        self.library = library
        self.process = subprocess.Popen([f"{BUILD}/vexa-usb-sim", "--port", "0", "--attach", *devices],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait(len(devices))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        self.wait(0)

    def wait(self, count):
        deadline = time.monotonic() + 60
        while len(self.library.devices()) != count:
            assert time.monotonic() < deadline, self.library.devices()
            time.sleep(0.02)


class Program:
    def __init__(self, code, *arguments, forks=FORKS):
        self.forks = forks
        with tempfile.NamedTemporaryFile(delete=False) as file:
            self.output = pathlib.Path(file.name)
        self.number = self.ask(code=code, argv=[*arguments] or ["program"], output=file.name)

    def ask(self, **request):
        self.forks.stdin.write(json.dumps(request) + "\n")
        self.forks.stdin.flush()
        return int(self.forks.stdout.readline())

    def ended(self):
        watchdog = threading.Timer(120, os.kill, (self.number, signal.SIGKILL))
        watchdog.start()
        try:
            return self.ask(wait=self.number), self.output.read_text()
        finally:
            watchdog.cancel()
            self.output.unlink()


def example(language, name, *arguments, forks=FORKS):
    """Runs an example; its exit status and what it said."""
    if language == "python":
        path = f"{TOP}/examples/python/{name}.py"
        with open(path) as file:
            return Program(file.read(), path, *arguments, forks=forks).ended()
    done = subprocess.run([f"{BUILD}/examples/example-{name}", *arguments], timeout=120, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode, done.stdout


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
    functions = {name for name in dir(lib) if name.startswith("vexa_usb_")}
    sources = "".join(path.read_text() for path in (TOP / "python").glob("*/*.[cp][py]*"))
    assert len(functions) == 35 and functions <= set(re.findall(r"\bvexa_usb_\w+", sources))
    statuses = {getattr(lib, name) for name in dir(lib) if name.startswith("VEXA_USB_STATUS_")}
    kinds = [kind for kind in vars(vexa_usb).values()
             if isinstance(kind, type) and issubclass(kind, vexa_usb.Error)]
    assert statuses - {kind.status for kind in kinds} == {0}


# The first that starts a simulator: the instrument stays for the others.
def test_firmware(library):
    image = os.urandom(200000)
    heard = []
    with Simulator(library, "dfu,linger=60000", "dfu,product=0x0df1,poll=200", "fx2"):
        with library.open(product_id=0x0DF0) as device:
            device.dfu_download(image, heard.append)
        assert heard == sorted(heard) and len(heard) > 10 and heard[-1] == 1

        device = library.open(product_id=0x0DF1)
        threading.Timer(0.5, os.kill, (os.getpid(), signal.SIGINT)).start()
        with pytest.raises(KeyboardInterrupt) as raised:
            device.dfu_download(image)
        assert "plugged in" in raised.value.__notes__[0]
        with pytest.raises(vexa_usb.Closed):
            device.descriptor()
        with open(TOP / "examples/fx2_renumerate.hex") as file:
            records = b"".join(bytes.fromhex(line[1:]) for line in file.read().split())
        with library.open(vendor_id=0x04B4) as device:
            for wrong in (records[:-1], b"\1\0\0\0\0\0"):
                with pytest.raises(vexa_usb.InvalidParameters):
                    device.fx2_load(wrong)
            device.fx2_load(records, heard.append)
    for language, device, kind, image in (("c", "fx3", "fx3", fx3()),
                                          ("python", "imx7", "spl", spl(2000))):
        path = pathlib.Path(f"/dev/shm/{kind}")
        path.write_bytes(image)
        with Simulator(library, device):
            status, said = example(language, "load", kind, str(path))
            assert status == 0 and f"{len(image)} bytes loaded" in said, said
            assert example(language, "load", kind, "/none")[0] != 0


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
    with device.stream(STREAM, 1000000, 64) as stream:
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
        kept.pop()
        with pytest.raises(BufferError, match="copy"):
            next(stream)
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
    with pytest.raises(BufferError, match="delete or copy"):
        library.open()
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
            with device.stream(STREAM, 1 << 18, 64) as stream:
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


START = """import threading, sys, asyncio, vexa_usb
library = vexa_usb.Library()
device = library.open()
"""
ENDLESS = {
    "silent": "device.control_out(6, 1, 0x82)\nfor view in device.stream(0x82): pass",
    "full speed": "device.control_out(6, 0, 0x82)\n"
                  "for view in device.stream(0x82, 1 << 20, 64): numpy.frombuffer(view)[0]",
    "events": "for event in device.events(): pass",
    "watch": "for change in library.watch(): pass",
    "read": "while True:\n  try: device.bulk_read(0x83, 1)\n  except vexa_usb.Timeout: pass",
    "asyncio": "async def main():\n  async for event in device.events(): pass\n"
               "asyncio.run(main())"}


@pytest.mark.parametrize("what", ENDLESS)
def test_control_c_and_exit(instrument, what):
    """Each endless wait, ended by Ctrl-C; then as a daemon thread of an interpreter that ends."""
    instrument.wait(1)
    # Not interrupted as it imports: some modules of C make another error of that.
    start = START + ("import numpy\n" if "numpy" in ENDLESS[what] else "")
    program = Program(start + "print(flush=True)\n" + ENDLESS[what])
    while not program.output.stat().st_size:
        time.sleep(0.05)
    time.sleep(0.3)
    os.kill(program.number, signal.SIGINT)
    status, said = program.ended()
    assert status == -signal.SIGINT and "KeyboardInterrupt" in said, said
    status, said = Program(start + "threading.Thread(target=exec, daemon=True, args=("
                           f"{ENDLESS[what]!r}, globals())).start()\nthreading.Event().wait(0.5)\n"
                           "sys.exit(7)").ended()
    assert status == 7 and not said, said


def test_a_forked_process_can_leave(instrument):
    assert Program(START + "import os\nchild = os.fork()\nif child == 0: sys.exit(3)\n"
                   "sys.exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))").ended() == (3, "")


@pytest.mark.parametrize("language", ("c", "python"))
def test_examples(library, instrument, language):
    instrument.wait(1)
    with library.open() as device:
        device.control_out(SILENCE, 0, STREAM)
        device.control_out(SEND, data=b"\x10\x00\xff")
        device.control_out(SEEK, data=bytes(8))
    for name, arguments, pattern_of_output in (
            ("list", (), f"sees 1 devices\ndevice \\d+: {vexa_usb.VENDOR_ID:04x}:0001"),
            ("events", ("3",), "^0x10\n0x00\n0xff\n$"),
            ("record", ("/dev/shm/recorded", "3000000"), "^$"),
            ("control", (), "Hello, instrument"),
            ("bulk", (), "100000 bytes went and came\none more: .*timed out")):
        status, said = example(language, name, *arguments)
        assert status == 0 and re.search(pattern_of_output, said), (name, said)
    assert pathlib.Path("/dev/shm/recorded").read_bytes() == pattern(0, 3000000).tobytes()
    assert example(language, "record", "/dev/full", "1")[0] not in (0, -signal.SIGABRT)
    command = ([f"{BUILD}/examples/example-watch"] if language == "c" else
               [sys.executable, f"{TOP}/examples/python/watch.py"])
    with subprocess.Popen(command, text=True, stdout=subprocess.PIPE) as watch:
        assert watch.stdout.readline().startswith(f"added {vexa_usb.VENDOR_ID:04x}:0001")
        watch.send_signal(signal.SIGINT)
    assert watch.returncode == 0


# Runs a sample of the documentation until each of its lines has run.  One that begins in the middle
# gets a library and a device; where it listens for events, the device leaves and comes back.
SAMPLE = """import ast, asyncio, struct, sys, time, vexa_usb
text = sys.argv[1]
code = compile(text, "sample", "exec", ast.PyCF_ALLOW_TOP_LEVEL_AWAIT)
left = {line for _, _, line in code.co_lines() if line}
def trace(frame, event, argument):
    if frame.f_code is not code:
        return None
    if event == "line" and not left:
        sys.exit()
    left.discard(frame.f_lineno)
    if event == "exception" and argument[0] not in (StopIteration, StopAsyncIteration):
        left.add(argument[0])  # is not to be hidden
    return trace
names = {}
if "Library()" not in text:
    library = vexa_usb.Library()
    device = library.open()
    names = {"library": library, "device": device}
    if "events()" in text:
        device.control_out(8, data=struct.pack("<QIHH", 0, 1000, 0, 1000))
try:
    sys.settrace(trace)
    if coroutine := eval(code, names):
        asyncio.run(coroutine)
finally:
    while "events()" in text and all(info == device.info for info in library.devices()):
        time.sleep(0.1)
sys.exit(f"not run: lines {left}" if left else 0)
"""
SAMPLES = [pytest.param(code, id=f"{path.name}-{number}")
           for path in (TOP / "README.md", *sorted((TOP / "docs").glob("*.md")))
           for number, code in enumerate(re.findall("```python\n(.*?)```", path.read_text(), re.S), 1)]


@pytest.mark.parametrize("sample", SAMPLES)
def test_samples_of_the_documentation(instrument, sample):
    instrument.wait(1)
    status, said = Program(SAMPLE, "sample", sample, forks=PLOTTER).ended()
    assert status == 0, said


def test_scope_draws(instrument):
    picture = pathlib.Path(BUILD) / "scope.png"
    picture.unlink(missing_ok=True)
    status, said = example("python", "scope", "--png", str(picture), forks=PLOTTER)
    assert status == 0 and picture.read_bytes().startswith(b"\x89PNG"), said
