#!/usr/bin/env python3
"""What the library exports, imports and is hardened with, read from its ELF file; then the file is
loaded and unloaded."""
import _ctypes
import ctypes
import re
import subprocess
import sys

library, header, release = sys.argv[1], sys.argv[2], sys.argv[3] == "1"


def run(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


declared = set(re.findall(r"(?m)^VEXA_USB_API [^;(]*?(\w+)\(", open(header).read()))
symbols = [line.split() for line in run("nm", "-D", "--with-symbol-versions", library).splitlines()]
exported = {name.split("@")[0] for *_, kind, name in symbols if kind not in "UwvA"}
assert exported == declared, exported ^ declared
assert len(exported) == 35, len(exported)

ALLOWED = """init exit hotplug_register_callback handle_events interrupt_event_handler get_device_list
free_device_list get_device_descriptor get_bus_number get_device_address get_device
get_max_packet_size open close kernel_driver_active detach_kernel_driver claim_interface
release_interface control_transfer interrupt_transfer bulk_transfer alloc_transfer submit_transfer
cancel_transfer free_transfer error_name"""
# Those that an older libusb lacks are weak.
weak = {name for *_, kind, name in symbols if kind in "wv" and name.startswith("libusb_")}
assert weak <= {"libusb_dev_mem_alloc", "libusb_dev_mem_free"}, weak
imported = {name for *_, kind, name in symbols if kind == "U" and name.startswith("libusb_")}
assert imported <= {"libusb_" + name for name in ALLOWED.split()}, imported

dynamic = run("readelf", "-dW", library)
assert "soname: [libvexa-usb.so.0]" in dynamic
if release:
    needed = set(re.findall(r"NEEDED.*\[(.*)\]", dynamic))
    assert needed <= {"libusb-1.0.so.0", "libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"}, needed
    assert "BIND_NOW" in dynamic and "TEXTREL" not in dynamic
    assert "GNU_RELRO" in run("readelf", "-lW", library)
    assert any("__stack_chk_fail" in words[-1] for words in symbols)

    # Its threads may still be at work when a program unloads it.
    for _ in range(300):
        loaded = ctypes.CDLL(library)
        loaded.vexa_usb_init()
        loaded.vexa_usb_fini()
        _ctypes.dlclose(loaded._handle)
print("ok")
