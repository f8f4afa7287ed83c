#!/usr/bin/env python3
"""Follows every local link of a directory of HTML pages, to its file and its anchor.

Usage: check_links.py DIRECTORY
"""
import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.links, self.anchors = [], set()
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        self.anchors.update(filter(None, (attributes.get("id"), attributes.get("name"))))
        self.links += filter(None, (attributes.get("href"), attributes.get("src")))


def problem(page, link, pages):
    address = urllib.parse.urlsplit(link)
    if address.scheme or address.netloc:
        return None
    target = page
    if address.path:
        target = (page.parent / urllib.parse.unquote(address.path)).resolve()
    if not target.is_file():
        return "no such file"
    anchor = urllib.parse.unquote(address.fragment)
    if anchor and target in pages and anchor not in pages[target].anchors:
        return "no such anchor"
    return None


def main():
    directory = pathlib.Path(sys.argv[1]).resolve()
    pages = {path: Page(path) for path in directory.rglob("*.html")}
    links = [(path, link) for path, page in pages.items() for link in page.links]
    dead = [(path, link, what) for path, link in links if (what := problem(path, link, pages))]
    for path, link, what in dead:
        print(f"{path.relative_to(directory)}: {link}: {what}")
    print(f"{len(links)} links on {len(pages)} pages, {len(dead)} of them dead")
    return 1 if dead or not links else 0


if __name__ == "__main__":
    sys.exit(main())
