"""Settings of the site, for Sphinx; scripts/docs runs it on a copy of this directory."""
import pathlib
import re

project = "vexa-usb"
copyright = "its authors"
extensions = ["myst_parser"]
myst_heading_anchors = 4
exclude_patterns = ["man", "samples", "examples"]
html_theme = "furo"
html_static_path = ["_static"]
html_css_files = ["site.css"]
html_show_sphinx = False
html_show_copyright = False
html_copy_source = False
highlight_language = "none"
smartquotes = False  # would make one dash of the two before an option
primary_domain = "c"

cmake = pathlib.Path(__file__).with_name("CMakeLists.top").read_text(encoding="utf-8")
release = version = re.search(r"project\(vexa-usb VERSION ([\d.]+)", cmake).group(1)
html_title = f"vexa-usb {release}"
nitpick_ignore_regex = [("c:identifier", r"u?int\d+_t")]  # the standard library's
