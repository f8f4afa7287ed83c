#!/usr/bin/env python3
"""docs/errors.md explains each status of the header and each line that the library can log.

Usage: check_errors.py SOURCE-TREE
"""
import pathlib
import re
import sys

LITERALS = r'((?:\s*(?:"(?:[^"\\]|\\.)*"|PRI\w+))+)'


def logged_lines(root):
    """The formats of all log lines, with an ellipsis for each run of what differs."""
    for file in sorted((root / "src").rglob("*.cpp")):
        for found in re.finditer(r"logLine\(\s*LogLevel::\w+,\s*" + LITERALS,
                                 file.read_text(encoding="utf-8")):
            literals = re.sub(r"PRI\w+", "", found.group(1))
            text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals))
            yield file.relative_to(root), re.sub(r"(?:(?:0x)?%[0-9]*l*[sdxu]?)+", "…", text)


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / "docs/errors.md").read_text(encoding="utf-8")
    explained = {line.strip() for line in page.splitlines() if line.startswith("    ")}
    header = (root / "include/vexa_usb.h").read_text(encoding="utf-8")
    lines = list(logged_lines(root))
    missing = [f"{file}: {line}" for file, line in lines if line not in explained]
    statuses = re.findall(r"(VEXA_USB_STATUS_\w+)\s*=?\s*\(?(-?\d+)", header)
    missing += [name for name, value in statuses if not re.search(f"^### {value}: ", page, re.M)]
    for what in missing:
        print(f"docs/errors.md does not explain {what}")
    print(f"{len(lines)} log lines and {len(statuses)} statuses, {len(missing)} unexplained")
    return 1 if missing or not lines or not statuses else 0


if __name__ == "__main__":
    sys.exit(main())
