"""Builds vexa_usb._native from the library's own header: what Python knows of the library is what
the C preprocessor leaves of it, so nothing is declared twice.

The library is found by pkg-config; VEXA_USB_CFLAGS and VEXA_USB_LIBS take its place.
"""
from __future__ import annotations

import os
import re
import shlex
import subprocess

import cffi

HERE = os.path.dirname(os.path.abspath(__file__))
HEADERS = ("vexa_usb.h", "vexa_usb_config.h", "bridge.h")
NUMBER = re.compile(r"\(?\s*-?\s*(0[xX][0-9a-fA-F]+|\d+)[uUlL]*\s*\)?$")


def flags(variable: str, option: str) -> list[str]:
    words = os.environ.get(variable)
    if words is None:
        words = subprocess.run(["pkg-config", option, "vexa-usb"], check=True,
                               stdout=subprocess.PIPE, text=True).stdout
    return shlex.split(words)


def preprocessed(cflags: list[str]) -> str:
    """The headers after the preprocessor, with its definitions and without other files' text."""
    compiler = shlex.split(os.environ.get("CC", "cc"))
    text = subprocess.run([*compiler, "-E", "-dD", *cflags, "-I", os.path.join(HERE, "native"), "-"],
                          input='#include "bridge.h"\n', check=True, stdout=subprocess.PIPE,
                          text=True).stdout
    kept: list[str] = []
    ours = False
    for line in text.splitlines():
        marker = re.match(r'# \d+ "(.*?)"', line)
        if marker:
            ours = os.path.basename(marker[1]) in HEADERS
        elif ours:
            kept.append(line)
    return "\n".join(kept)


def declarations(text: str) -> str:
    """What cffi is to know: types, functions, enumerations, and constants by name only."""
    constants = [f"#define {name} ..." for name, value
                 in re.findall(r"(?m)^#define (VEXA_USB_\w+) (.+)$", text) if NUMBER.match(value)]
    code = re.sub(r"(?m)^#.*$", "", text)
    code = re.sub(r"__attribute__\s*\(\(.*?\)\)\)?", "", code)
    return "\n".join([code, *constants])


def functions(code: str) -> list[str]:
    return re.findall(r"\b(vexa_usb_\w+)\s*\(", code)


cflags = flags("VEXA_USB_CFLAGS", "--cflags")
cdef = declarations(preprocessed(cflags))

ffibuilder = cffi.FFI()
ffibuilder.cdef(cdef)
ffibuilder.set_source(
    "vexa_usb._native",
    '#include "guard.h"\n' + "".join(
        f"#define {name}(...) bridge::guarded(&::{name} __VA_OPT__(,) __VA_ARGS__)\n"
        for name in functions(cdef)),
    source_extension=".cpp",
    sources=[os.path.relpath(os.path.join(HERE, "native/bridge.cpp"))],
    depends=[os.path.join(HERE, "native", name) for name in ("bridge.h", "guard.h", "mutex.h")],
    include_dirs=[os.path.join(HERE, "native")],
    extra_compile_args=["-std=c++20", *cflags],
    extra_link_args=flags("VEXA_USB_LIBS", "--libs"),
)
